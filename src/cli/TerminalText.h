#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace velmora {

// Text as a terminal shows it: cells instead of bytes. Names from a card can hold wide characters, combining marks,
// invalid bytes and control characters; none of them may break a line or move the cursor.
namespace TerminalText {

// Replaces what must not reach a terminal: control characters, invalid UTF-8 and characters that turn the direction of
// writing become "\x1B"-style escapes.
std::string printable(std::string_view text);

// Cells that printable text takes: 2 for wide characters and emoji, 0 for marks that join the one before.
std::size_t width(std::string_view text);

// Printable text in at most `columns` cells; what is cut off at the end is replaced by "…".
std::string fit(std::string_view text, std::size_t columns);

// The same, cutting out of the middle: the start and the end of a path tell more than its middle.
std::string fitMiddle(std::string_view text, std::size_t columns);

} // namespace TerminalText

} // namespace velmora
