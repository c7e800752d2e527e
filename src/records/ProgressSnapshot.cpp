#include "records/ProgressSnapshot.h"

#include <array>
#include <cstddef>

namespace velmora {

std::string_view name(ProgressSnapshot::Phase phase) noexcept {
    constexpr std::array<std::string_view, 5> names{"copy", "flush", "verify", "report", "done"};
    return names[static_cast<std::size_t>(phase)];
}

} // namespace velmora
