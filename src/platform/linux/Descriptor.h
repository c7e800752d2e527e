#pragma once

#include "base/Errors.h"

#include <cerrno>
#include <string>
#include <unistd.h>
#include <utility>

namespace velmora {

// Owns one file descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset() noexcept {
        if (fd_ >= 0) {
            const int saved = errno; // a close on the way out of a failure must not change what is reported
            ::close(fd_);
            errno = saved;
        }
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// Repeats a system call while a signal interrupts it.
template <class Call>
auto retryInterrupted(Call call) {
    decltype(call()) result;
    do
        result = call();
    while (result < 0 && errno == EINTR);
    return result;
}

// Throws the IOError of the call that has just failed.
[[noreturn]] inline void throwErrno(const char* op, const std::string& path) { throw IOError(op, path, errno); }

// The results of system calls that report by -1.
inline void check(int result, const char* op, const std::string& path) {
    if (result < 0)
        throwErrno(op, path);
}

} // namespace velmora
