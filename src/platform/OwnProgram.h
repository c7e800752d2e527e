#pragma once

#include <string>

namespace velmora {

// The full path of the program that runs, links resolved; empty when the system does not say.
std::string ownProgram();

} // namespace velmora
