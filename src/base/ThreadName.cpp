#include "base/ThreadName.h"

#include <array>
#include <pthread.h>

namespace velmora {

void nameThisThread(std::string_view name) noexcept {
    std::array<char, 16> text{};
    name.copy(text.data(), text.size() - 1);
    ::pthread_setname_np(::pthread_self(), text.data());
}

} // namespace velmora
