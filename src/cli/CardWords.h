#pragma once

#include "memory/CardInspector.h"

#include <string>
#include <vector>

namespace velmora {

// What the terminal says of a card before it is copied.
namespace CardWords {

// What is on the card, and whether it is known.
std::vector<std::string> describe(const CardInsight& insight);
// The one command to type next for a card that has a backup; empty for any other.
std::string command(const CardInsight& insight);
// The same with what it does; empty when a plain copy is all there is.
std::vector<std::string> offers(const CardInsight& insight);
// "velmora append CARD --into …", as a shell takes it; `verb` is append or repair.
std::string intoCommand(const std::string& verb, const std::string& source, const std::vector<std::string>& cardPaths);
// "velmora copy CARD --again --dest …", each root once, with the switches without which these disks would be refused.
std::string copyAgainCommand(const std::string& source, const std::vector<std::string>& roots);

} // namespace CardWords

} // namespace velmora
