#include "platform/IO.h"

#include "platform/linux/MountTable.h"
#include "platform/linux/OpenFile.h"
#include "platform/linux/RenameNoReplace.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <memory>
#include <sys/statvfs.h>
#include <sys/vfs.h>

namespace velmora {

bool IOEntry::isFile() const noexcept { return type == DT_REG; }
bool IOEntry::isFolder() const noexcept { return type == DT_DIR; }

namespace IO {

namespace {

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::string readAll(Descriptor fd, const std::string& path, std::int64_t limit) {
    struct stat info{};
    check(::fstat(fd.get(), &info), "stat", path);
    if (info.st_size > limit)
        throw IOError("read", path, EFBIG);
    // The length is a hint: files of /proc and /sys say 0 or a page, and a file may grow under our hands.
    std::string bytes;
    std::size_t got = 0;
    const auto most = static_cast<std::size_t>(limit) + 1;
    while (true) {
        if (got == bytes.size())
            bytes.resize(std::min(most, got == 0 ? static_cast<std::size_t>(info.st_size) + 4096 : got * 2));
        const ssize_t n = retryInterrupted([&] { return ::read(fd.get(), bytes.data() + got, bytes.size() - got); });
        if (n < 0)
            throwErrno("read", path);
        got += static_cast<std::size_t>(n);
        if (got >= most)
            throw IOError("read", path, EFBIG);
        if (n == 0)
            break;
    }
    bytes.resize(got);
    return bytes;
}

// The errors that prove that nothing has the name.
bool provesAbsence(int code) noexcept { return code == ENOENT || code == ENOTDIR; }

bool ownsBlockDevice(const std::string& folder) try {
    const auto entry = MountTable::entryOf(folder);
    return entry && entry->type == "fuseblk";
} catch (const IOError&) {
    return false;
}

} // namespace

AlignedBuffer allocateAligned(std::size_t bytes) { return AlignedBuffer(bytes); }

void mkdirs(const std::string& path) {
    const std::string folder = withoutTrailingSlashes(path);
    struct stat info{};
    if (::stat(folder.c_str(), &info) == 0) {
        if (!S_ISDIR(info.st_mode))
            throw IOError("mkdir", folder, ENOTDIR);
        return;
    }
    if (errno != ENOENT)
        throwErrno("mkdir", folder);
    if (const std::string parent = parentOf(folder); parent != folder)
        mkdirs(parent);
    if (::mkdir(folder.c_str(), 0755) == 0)
        return;
    const int code = errno;
    // Somebody else may have been faster; a dangling link is in the way for good.
    if (code == EEXIST && ::lstat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        return;
    throw IOError("mkdir", folder, code);
}

void mkdirBelow(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) == 0)
        return;
    if (errno != EEXIST)
        throwErrno("mkdir", path);
    const FileFacts facts = lstat(path);
    if (!facts.isFolder)
        throw IOError("mkdir", path, facts.isLink ? ELOOP : ENOTDIR);
}

void mkdirNew(const std::string& path) { check(::mkdir(path.c_str(), 0755), "mkdir", path); }

bool removeEmptyFolder(const std::string& path) noexcept { return ::rmdir(path.c_str()) == 0; }

void renameNoReplace(const std::string& from, const std::string& to) {
    int code = RenameNoReplace::byKernel(from, to);
    if (code == EINVAL || code == ENOSYS) {
        code = RenameNoReplace::byLink(from, to);
        if (code == EPERM || code == ENOSYS || code == EOPNOTSUPP || code == EMLINK || code == EINVAL)
            code = RenameNoReplace::byPlaceholder(from, to);
    }
    if (code != 0)
        throw IOError("rename", to, code);
}

void rename(const std::string& from, const std::string& to) {
    check(retryInterrupted([&] { return ::rename(from.c_str(), to.c_str()); }), "rename", to);
}

void unlink(const std::string& path) { check(::unlink(path.c_str()), "unlink", path); }

void syncFolder(const std::string& path) {
    const Descriptor fd(retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    check(fd.get(), "open", path);
    if (retryInterrupted([&] { return ::fsync(fd.get()); }) == 0)
        return;
    // Some network file systems have no fsync of a folder; the next stronger call holds there.
    if (errno != EINVAL)
        throwErrno("fsync", path);
    check(retryInterrupted([&] { return ::syncfs(fd.get()); }), "syncfs", path);
}

FileSystemSync::FileSystemSync(const std::string& folder)
    : path_(folder), fd_(retryInterrupted([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); })) {
    check(fd_, "open", folder);
    struct statfs info{};
    if (retryInterrupted([&] { return ::fstatfs(fd_, &info); }) != 0) {
        coversEveryFile_ = false; // unknown: every file is then flushed by itself
        return;
    }
    const auto type = static_cast<unsigned long>(static_cast<std::uint32_t>(info.f_type));
    const bool forwardsOnlyFsync = type == SMB_SUPER_MAGIC || type == CIFS_SUPER_MAGIC || type == SMB2_SUPER_MAGIC ||
                                   type == V9FS_MAGIC || type == AFS_SUPER_MAGIC;
    // A daemon that owns a whole block device (fuseblk: exFAT, NTFS) flushes all of it on any fsync it is sent.
    coversEveryFile_ = type == FUSE_SUPER_MAGIC ? ownsBlockDevice(folder) : !forwardsOnlyFsync;
}

FileSystemSync::~FileSystemSync() { ::close(fd_); }

void FileSystemSync::sync() {
    check(retryInterrupted([&] { return ::syncfs(fd_); }), "syncfs", path_);
    // syncfs hands everything over to a FUSE daemon, or to a drive with FAT on it. Only fsync tells the daemon to go on
    // to the disk, and the drive to empty its own cache.
    if (retryInterrupted([&] { return ::fsync(fd_); }) != 0 && errno != EINVAL)
        throwErrno("syncfs", path_);
}

bool exists(const std::string& path) {
    struct stat info{};
    if (::lstat(path.c_str(), &info) == 0)
        return true;
    if (!provesAbsence(errno))
        throwErrno("stat", path);
    return false;
}

bool isGone(const std::string& path) noexcept {
    struct stat info{};
    return ::lstat(path.c_str(), &info) != 0 && provesAbsence(errno);
}

std::int64_t allocatedBytes(const std::string& path) noexcept {
    struct stat info{};
    constexpr std::int64_t unit = 512; // of st_blocks, whatever the file system's own block is: stat(2)
    return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? info.st_blocks * unit : 0;
}

bool holdsName(const std::string& path) {
    if (!exists(path))
        return false;
    const std::size_t slash = path.rfind('/');
    const std::string_view name = std::string_view(path).substr(slash == std::string::npos ? 0 : slash + 1);
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    return std::ranges::any_of(list(folder), [&](const IOEntry& entry) { return entry.name == name; });
}

bool isFolder(const std::string& path) {
    struct stat info{};
    if (::stat(path.c_str(), &info) == 0)
        return S_ISDIR(info.st_mode);
    if (!provesAbsence(errno))
        throwErrno("stat", path);
    return false;
}

bool isWritable(const std::string& path) { return ::access(path.c_str(), W_OK) == 0; }

bool isExecutableFile(const std::string& path) noexcept {
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

FileFacts stat(const std::string& path) {
    struct stat info{};
    check(::stat(path.c_str(), &info), "stat", path);
    return factsOf(info);
}

FileFacts lstat(const std::string& path) {
    struct stat info{};
    check(::lstat(path.c_str(), &info), "stat", path);
    return factsOf(info);
}

std::string realPath(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
    if (real == nullptr)
        throwErrno("realpath", path);
    return real.get();
}

std::vector<IOEntry> list(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
    if (dir == nullptr)
        throwErrno("opendir", folder);
    std::vector<IOEntry> entries;
    while (true) {
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): one stream is used by one thread, which is all that glibc asks
        const dirent* entry = ::readdir(dir.get());
        if (entry == nullptr) {
            if (errno != 0)
                throwErrno("readdir", folder);
            return entries;
        }
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        std::uint32_t type = entry->d_type;
        struct stat info{};
        if (type == DT_UNKNOWN && ::fstatat(::dirfd(dir.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0)
            type = IFTODT(info.st_mode);
        entries.push_back({std::string(name), type});
    }
}

std::string readFile(const std::string& path, std::int64_t limit) {
    // Links are followed here: a person may keep settings behind one. Nothing but a regular file is waited for.
    Descriptor fd(retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
    check(fd.get(), "open", path);
    struct stat info{};
    check(::fstat(fd.get(), &info), "stat", path);
    if (!S_ISREG(info.st_mode))
        throw IOError("read", path, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
    return readAll(std::move(fd), path, limit);
}

std::string readFileBeneath(const std::string& root, const std::string& relative, std::int64_t limit) {
    return readAll(openRegularBeneath(root, relative), root + "/" + relative, limit);
}

Capacity capacity(const std::string& path) {
    struct statvfs info{};
    check(retryInterrupted([&] { return ::statvfs(path.c_str(), &info); }), "statfs", path);
    const auto unit = static_cast<std::int64_t>(info.f_frsize);
    return {static_cast<std::int64_t>(info.f_blocks) * unit, static_cast<std::int64_t>(info.f_bavail) * unit};
}

} // namespace IO

} // namespace velmora
