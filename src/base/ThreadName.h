#pragma once

#include <string_view>

namespace velmora {

// How debuggers show the calling thread. The kernel keeps 15 bytes.
void nameThisThread(std::string_view name) noexcept;

} // namespace velmora
