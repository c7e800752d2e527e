#include "platform/ThreadPriority.h"

#include <linux/ioprio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace velmora {

bool ThreadPriority::lowerDiskPriority() noexcept {
    // Process id 0 is the calling thread. The idle class would be lower still, but can starve for good.
    constexpr int lowestLevel = 7;
    return ::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_BE, lowestLevel)) == 0;
}

} // namespace velmora
