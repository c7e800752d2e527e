#pragma once

#include <cstdint>

namespace velmora {

// The number of this process, for names that no other process may take.
std::int64_t processId() noexcept;

} // namespace velmora
