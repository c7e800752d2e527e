#include "platform/RandomBytes.h"

#include "platform/linux/Descriptor.h"

#include <sys/random.h>

namespace velmora {

void fillRandom(std::span<std::byte> bytes) {
    while (!bytes.empty()) {
        const ssize_t got = retryInterrupted([&] { return ::getrandom(bytes.data(), bytes.size(), 0); });
        if (got < 0)
            throwErrno("getrandom", "");
        bytes = bytes.subspan(static_cast<std::size_t>(got));
    }
}

} // namespace velmora
