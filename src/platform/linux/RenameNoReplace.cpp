#include "platform/linux/RenameNoReplace.h"

#include "platform/linux/Descriptor.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace velmora::RenameNoReplace {

int byKernel(const std::string& from, const std::string& to) noexcept {
    const int result =
        retryInterrupted([&] { return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE); });
    return result == 0 ? 0 : errno;
}

int byLink(const std::string& from, const std::string& to) noexcept {
    if (retryInterrupted([&] { return ::link(from.c_str(), to.c_str()); }) != 0)
        return errno;
    if (::unlink(from.c_str()) == 0)
        return 0;
    const int code = errno;
    ::unlink(to.c_str());
    return code;
}

int byPlaceholder(const std::string& from, const std::string& to) noexcept {
    struct stat info{};
    if (::lstat(from.c_str(), &info) != 0)
        return errno;
    const bool folder = S_ISDIR(info.st_mode);
    struct stat ours{};
    if (folder) {
        if (::mkdir(to.c_str(), 0755) != 0 || ::lstat(to.c_str(), &ours) != 0)
            return errno;
    } else {
        const Descriptor placeholder(retryInterrupted(
            [&] { return ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644); }));
        if (!placeholder || ::fstat(placeholder.get(), &ours) != 0)
            return errno;
    }
    if (retryInterrupted([&] { return ::rename(from.c_str(), to.c_str()); }) == 0)
        return 0;
    const int code = errno;
    // Only the placeholder itself is taken away again, never what somebody else put in its place.
    struct stat now{};
    if (::lstat(to.c_str(), &now) == 0 && now.st_ino == ours.st_ino && now.st_dev == ours.st_dev) {
        if (folder)
            ::rmdir(to.c_str());
        else if (now.st_size == 0)
            ::unlink(to.c_str());
    }
    return code;
}

} // namespace velmora::RenameNoReplace
