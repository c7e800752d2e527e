#pragma once

#include <cstddef>
#include <span>

namespace velmora {

// Fills `bytes` from the system's random source, which nobody can guess. Throws IOError("getrandom", …).
void fillRandom(std::span<std::byte> bytes);

} // namespace velmora
