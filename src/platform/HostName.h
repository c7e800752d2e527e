#pragma once

#include <string>

namespace velmora {

// The computer's name as the network knows it; "localhost" when it has none.
std::string hostName();

} // namespace velmora
