#include "platform/File.h"
#include "platform/HeldFolder.h"
#include "platform/linux/OpenFile.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>

namespace velmora {

UncachedReader::UncachedReader(const std::string& path) : UncachedReader(path, openRegular(path, O_RDONLY).release()) {}

UncachedReader::UncachedReader(std::string path, int fd)
    : path_(std::move(path)), fd_(fd), mode_(switchToDirect(fd) ? CacheMode::direct : CacheMode::dropBehind) {}

UncachedReader UncachedReader::beneath(const std::string& root, const std::string& relative) {
    return UncachedReader(root + "/" + relative, openRegularBeneath(root, relative).release());
}

UncachedReader UncachedReader::beneath(const HeldFolder& root, const std::string& relative) {
    return UncachedReader(root.path() + "/" + relative,
                          openRegularBeneath(root.descriptor(), root.path(), relative).release());
}

UncachedReader::~UncachedReader() {
    if (fd_ < 0)
        return;
    // Read-ahead may have run past the last position that was asked for.
    if (mode_ == CacheMode::dropBehind)
        ::posix_fadvise(fd_, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd_);
}

UncachedReader::UncachedReader(UncachedReader&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)), mode_(other.mode()) {}

FileFacts UncachedReader::facts() const {
    struct stat info{};
    check(::fstat(fd_, &info), "stat", path_);
    return factsOf(info);
}

void UncachedReader::becomeBuffered() {
    switchToBuffered(fd_);
    mode_ = CacheMode::dropBehind;
}

// One pread that got through. Some file systems take the O_DIRECT flag and refuse only the reading (EINVAL); another
// thread may have found that out while this one was asking.
std::size_t UncachedReader::readOnce(std::byte* to, std::size_t bytes, std::int64_t offset) {
    while (true) {
        const bool direct = mode() == CacheMode::direct;
        const ssize_t n = retryInterrupted([&] { return ::pread(fd_, to, bytes, offset); });
        if (n >= 0)
            return static_cast<std::size_t>(n);
        if (errno != EINVAL || !direct)
            throwErrno("read", path_);
        becomeBuffered();
    }
}

std::size_t UncachedReader::readAt(std::span<std::byte> buffer, std::int64_t offset) {
    std::size_t got = 0;
    while (got < buffer.size()) {
        // O_DIRECT cannot go on from an unaligned position. Usually such a position is the end of the file; when the
        // file has grown meanwhile, or a read was merely cut short, the broken unit is read again from its start.
        const bool direct = mode() == CacheMode::direct;
        const std::size_t from = direct ? got / directAlignment * directAlignment : got;
        if (from < got && offset + static_cast<std::int64_t>(got) >= facts().size)
            break;
        const std::size_t n = readOnce(buffer.data() + from, buffer.size() - from, offset + static_cast<off_t>(from));
        if (from + n > got)
            got = from + n;
        else if (from < got)
            becomeBuffered(); // there is more, but O_DIRECT does not give it: the cache takes over behind `got`
        else
            break;
    }
    const std::size_t end = std::min(buffer.size(), (got + directAlignment - 1) / directAlignment * directAlignment);
    std::memset(buffer.data() + got, 0, end - got);
    if (mode_ == CacheMode::dropBehind && got > 0)
        ::posix_fadvise(fd_, offset, static_cast<off_t>(end), POSIX_FADV_DONTNEED);
    return got;
}

} // namespace velmora
