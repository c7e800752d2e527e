#pragma once

#include <functional>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace velmora::test {

// Runs `work` on a thread without any rights, as far as this program may give its own up. Credentials belong to a
// thread; only the C library makes them look like the process's.
inline void asNobody(const std::function<void()>& work) {
    constexpr unsigned nobody = 65534;
    std::thread([&] {
        ::syscall(SYS_setresuid, nobody, nobody, nobody);
        work();
    }).join();
}

} // namespace velmora::test
