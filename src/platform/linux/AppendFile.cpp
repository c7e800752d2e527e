#include "platform/AppendFile.h"

#include "platform/linux/OpenFile.h"

#include <fcntl.h>

namespace velmora {

AppendFile::AppendFile(const std::string& path) : path_(path) {
    constexpr int flags = O_RDWR | O_APPEND;
    // The exclusive create tells whether the name is new. Between the two opens the name may come or go: then once
    // more.
    for (int round = 0;; ++round) {
        try {
            fd_ = openRegular(path, flags).release();
            return;
        } catch (const IOError& error) {
            if (error.code() != ENOENT || round > 8)
                throw;
        }
        try {
            fd_ = openRegular(path, flags | O_CREAT | O_EXCL, 0644).release();
            created_ = true;
            return;
        } catch (const IOError& error) {
            if (error.code() != EEXIST)
                throw;
        }
    }
}

AppendFile::~AppendFile() { const Descriptor closes(fd_); }

std::optional<char> AppendFile::lastByte() const {
    struct stat info{};
    check(::fstat(fd_, &info), "stat", path_);
    if (info.st_size == 0)
        return std::nullopt;
    char last = 0;
    const ssize_t got = retryInterrupted([&] { return ::pread(fd_, &last, 1, info.st_size - 1); });
    check(static_cast<int>(got), "read", path_);
    return got == 1 ? std::optional(last) : std::nullopt;
}

void AppendFile::append(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = retryInterrupted([&] { return ::write(fd_, bytes.data(), bytes.size()); });
        if (written < 0)
            throwErrno("write", path_);
        if (written == 0)
            throw IOError("write", path_, EIO);
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

void AppendFile::flush() { check(::fsync(fd_), "fsync", path_); }

void AppendFile::close() {
    const int fd = fd_;
    fd_ = -1;
    check(::close(fd), "close", path_);
}

} // namespace velmora
