#include "platform/ProcessId.h"

#include <unistd.h>

namespace velmora {

std::int64_t processId() noexcept { return ::getpid(); }

} // namespace velmora
