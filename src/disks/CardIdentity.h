#pragma once

#include <optional>
#include <string>

namespace velmora {

// Who the medium below a path is, so that a swapped card is never taken for the one that was copied.
namespace CardIdentity {

// The UUID of the path's volume; without one "created:" and the volume's creation date in seconds since 1970; none
// when the path does not exist or the volume tells neither.
std::optional<std::string> of(const std::string& path);

// `of`, followed by "|", the volume's label, "|" and its size in bytes: a card that was formatted anew, another card
// of the same label and a card that came back with another size all differ.
std::optional<std::string> withVolume(const std::string& path);

// `withVolume`; where the volume says nothing of itself, the folder that the path leads to. That tells a card from
// another one for a moment only, as long as nobody can have taken it out.
std::optional<std::string> momentary(const std::string& path);

} // namespace CardIdentity

} // namespace velmora
