#include "records/FileState.h"

#include <array>

namespace velmora {

namespace {
constexpr std::array<std::string_view, 4> stateNames{"pending", "written", "verified", "failed"};
} // namespace

std::string_view name(FileState state) noexcept { return stateNames[static_cast<std::size_t>(state)]; }

} // namespace velmora
