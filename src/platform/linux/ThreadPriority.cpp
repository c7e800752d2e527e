#include "platform/ThreadPriority.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace velmora {

namespace {

// The values of ioprio_set(2), which has no wrapper in the C library. They stand here because some releases of the
// kernel's own <linux/ioprio.h> are not valid C++: an inline function there names its argument "class".
constexpr int whoProcess = 1;
constexpr int bestEffortClass = 2;
constexpr int classShift = 13;
constexpr int lowestLevel = 7;

} // namespace

bool ThreadPriority::lowerDiskPriority() noexcept {
    // Process id 0 is the calling thread. The idle class would be lower still, but can starve for good.
    return ::syscall(SYS_ioprio_set, whoProcess, 0, (bestEffortClass << classShift) | lowestLevel) == 0;
}

} // namespace velmora
