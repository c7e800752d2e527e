#include "platform/linux/OpenFile.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

namespace velmora {

namespace {

// Whether `relative` names something strictly below a root, by plain components only.
bool isPlainRelative(std::string_view relative) {
    if (relative.empty() || relative.find('\0') != std::string_view::npos)
        return false;
    while (true) {
        const std::size_t slash = relative.find('/');
        const std::string_view part = relative.substr(0, slash);
        if (part.empty() || part == "." || part == "..")
            return false;
        if (slash == std::string_view::npos)
            return true;
        relative.remove_prefix(slash + 1);
    }
}

constexpr int readFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

// O_NONBLOCK was only there for the open, so that a FIFO or a sleeping device could not hold it.
Descriptor acceptRegular(Descriptor fd, const std::string& path) {
    struct stat info{};
    check(::fstat(fd.get(), &info), "stat", path);
    if (!S_ISREG(info.st_mode))
        throw IOError("open", path, EINVAL);
    const int flags = ::fcntl(fd.get(), F_GETFL);
    check(flags, "open", path);
    check(::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK), "open", path);
    return fd;
}

int openat2Beneath(int rootFd, const std::string& relative) {
    open_how how{};
    how.flags = readFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    // EAGAIN: a rename elsewhere in the tree raced with the walk, and the kernel could not tell that nothing escaped.
    for (int attempt = 0;; ++attempt) {
        const long fd = ::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how);
        if (fd >= 0)
            return static_cast<int>(fd);
        if (errno != EINTR && (errno != EAGAIN || attempt >= 100))
            return -1;
    }
}

} // namespace

FileFacts factsOf(const struct stat& info) noexcept {
    FileFacts facts;
    facts.size = info.st_size;
    facts.modified = {info.st_mtim.tv_sec, static_cast<std::int32_t>(info.st_mtim.tv_nsec)};
    facts.changed = {info.st_ctim.tv_sec, static_cast<std::int32_t>(info.st_ctim.tv_nsec)};
    facts.device = info.st_dev;
    facts.inode = info.st_ino;
    facts.isFile = S_ISREG(info.st_mode);
    facts.isFolder = S_ISDIR(info.st_mode);
    facts.isLink = S_ISLNK(info.st_mode);
    return facts;
}

Descriptor openRegular(const std::string& path, int flags, mode_t mode) {
    Descriptor fd(retryInterrupted(
        [&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode); }));
    check(fd.get(), "open", path);
    return acceptRegular(std::move(fd), path);
}

Descriptor openBeneathByComponents(int rootFd, std::string_view relative, const std::string& shownPath) {
    Descriptor folder;
    int at = rootFd;
    while (true) {
        const std::size_t slash = relative.find('/');
        const std::string part(relative.substr(0, slash));
        const bool last = slash == std::string_view::npos;
        const int flags = last ? readFlags : O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        Descriptor next(retryInterrupted([&] { return ::openat(at, part.c_str(), flags); }));
        if (!next) {
            // O_DIRECTORY with O_NOFOLLOW answers ENOTDIR to a link; openat2 says ELOOP, and so do we.
            const int code = errno;
            struct stat info{};
            const bool link = ::fstatat(at, part.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode);
            throw IOError("open", shownPath, link ? ELOOP : code);
        }
        if (last)
            return next;
        folder = std::move(next);
        at = folder.get();
        relative.remove_prefix(slash + 1);
    }
}

Descriptor openRegularBeneath(const std::string& root, const std::string& relative) {
    const Descriptor rootFd(retryInterrupted([&] { return ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
    check(rootFd.get(), "open", root);
    return openRegularBeneath(rootFd.get(), root, relative);
}

Descriptor openRegularBeneath(int rootFd, const std::string& root, const std::string& relative) {
    const std::string shown = root + "/" + relative;
    if (!isPlainRelative(relative))
        throw IOError("open", shown, EXDEV);
    Descriptor fd(openat2Beneath(rootFd, relative));
    if (!fd) {
        // ENOSYS: before Linux 5.6. EPERM: some sandboxes forbid calls that they do not know.
        if (errno != ENOSYS && errno != EPERM)
            throwErrno("open", shown);
        fd = openBeneathByComponents(rootFd, relative, shown);
    }
    return acceptRegular(std::move(fd), shown);
}

bool switchToDirect(int fd) noexcept {
    struct statx info{};
    if (::statx(fd, "", AT_EMPTY_PATH, STATX_DIOALIGN, &info) == 0 && (info.stx_mask & STATX_DIOALIGN) != 0) {
        // 0 says that this file takes no O_DIRECT at all, however its file system answers to the flag.
        if (info.stx_dio_mem_align == 0 || info.stx_dio_mem_align > directAlignment || info.stx_dio_offset_align == 0 ||
            info.stx_dio_offset_align > directAlignment)
            return false;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_DIRECT) == 0;
}

void switchToBuffered(int fd) noexcept {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0)
        ::fcntl(fd, F_SETFL, flags & ~O_DIRECT);
}

} // namespace velmora
