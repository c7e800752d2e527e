#define FUSE_USE_VERSION 314
#include "Disk.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/statvfs.h>
#include <unistd.h>

// Every operation: ask the rules under the path below the mount point, then do it on the folder beneath.

namespace velmora::faultdisk {

namespace {

struct Handle {
    int fd;
    std::string path; // under which it was opened
};

Disk& disk() { return *static_cast<Disk*>(fuse_get_context()->private_data); }

Handle& handleOf(fuse_file_info* info) { return *reinterpret_cast<Handle*>(info->fh); }

const char* relative(const char* path) { return path[1] == '\0' ? "." : path + 1; }

Verdict judge(Op op, const std::string& path, std::size_t bytes = 0) {
    return disk().rules.judge(op, path, bytes, fuse_get_context()->pid);
}

int answer(int result) { return result >= 0 ? 0 : -errno; }

PowerModel::Flush flushOf(const Verdict& verdict) {
    using enum PowerModel::Flush;
    return verdict.crashed ? interrupted : verdict.error != 0 ? failed : done;
}

// The folder that holds the last component of a path.
struct Parent {
    explicit Parent(const char* path) {
        const std::string text(path);
        const auto slash = text.rfind('/');
        name = text.substr(slash + 1);
        const std::string folder = slash == 0 ? "." : text.substr(1, slash - 1);
        fd = openat(disk().tree, folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    }
    ~Parent() {
        if (fd >= 0)
            close(fd);
    }
    Parent(const Parent&) = delete;
    Parent& operator=(const Parent&) = delete;
    int fd;
    std::string name;
};

// Runs a change of names in one folder and tells the power model.
template <class Change>
int makeName(Op op, const char* path, Change change) {
    if (const auto verdict = judge(op, path); verdict.error != 0)
        return -verdict.error;
    const Parent parent(path);
    const std::lock_guard lock(disk().mutex);
    if (change(parent.fd, parent.name.c_str()) < 0)
        return -errno;
    disk().power.created(parent.fd, parent.name);
    return 0;
}

int removeName(Op op, const char* path) {
    if (const auto verdict = judge(op, path); verdict.error != 0)
        return -verdict.error;
    const Parent parent(path);
    const std::lock_guard lock(disk().mutex);
    return disk().power.remove(parent.fd, parent.name, op == Op::rmdir);
}

int opGetattr(const char* path, struct stat* facts, fuse_file_info* info) {
    if (const auto verdict = judge(Op::lookup, info ? handleOf(info).path : path); verdict.error != 0)
        return -verdict.error;
    if (info)
        return answer(fstat(handleOf(info).fd, facts));
    return answer(fstatat(disk().tree, relative(path), facts, AT_SYMLINK_NOFOLLOW));
}

int opMkdir(const char* path, mode_t mode) {
    return makeName(Op::mkdir, path, [&](int at, const char* name) { return mkdirat(at, name, mode); });
}

int opUnlink(const char* path) { return removeName(Op::unlink, path); }

int opRmdir(const char* path) { return removeName(Op::rmdir, path); }

int opRename(const char* from, const char* to, unsigned flags) {
    if (const auto verdict = judge(Op::rename, from); verdict.error != 0)
        return -verdict.error;
    const Parent source(from), target(to);
    const std::lock_guard lock(disk().mutex);
    return disk().power.rename(source.fd, source.name, target.fd, target.name, flags);
}

int opChmod(const char* path, mode_t mode, fuse_file_info*) {
    const auto verdict = judge(Op::chmod, path ? path : "");
    return verdict.error != 0 ? -verdict.error : answer(fchmodat(disk().tree, relative(path), mode, 0));
}

int opUtimens(const char* path, const timespec times[2], fuse_file_info* info) {
    if (const auto verdict = judge(Op::utimens, info ? handleOf(info).path : path); verdict.error != 0)
        return -verdict.error;
    return answer(info ? futimens(handleOf(info).fd, times)
                       : utimensat(disk().tree, relative(path), times, AT_SYMLINK_NOFOLLOW));
}

int opTruncate(const char* path, off_t size, fuse_file_info* info) {
    if (const auto verdict = judge(Op::truncate, info ? handleOf(info).path : path); verdict.error != 0)
        return -verdict.error;
    const int fd = info ? handleOf(info).fd : openat(disk().tree, relative(path), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    const std::lock_guard lock(disk().mutex);
    const int result = disk().power.truncate(fd, size);
    if (!info)
        close(fd);
    return result;
}

void keep(fuse_file_info* info, int fd, const char* path) {
    info->fh = reinterpret_cast<std::uint64_t>(new Handle{fd, path});
}

int opOpen(const char* path, fuse_file_info* info) {
    if (const auto verdict = judge(Op::open, path); verdict.error != 0)
        return -verdict.error;
    // Reading is needed to remember what a write overwrites; alignment is the caller's business with us, not ours with
    // the folder beneath.
    const int access = (info->flags & O_ACCMODE) == O_RDONLY ? O_RDONLY : O_RDWR;
    const int fd = openat(disk().tree, relative(path), access | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return -errno;
    keep(info, fd, path);
    if ((info->flags & O_TRUNC) != 0) {
        const std::lock_guard lock(disk().mutex);
        return disk().power.truncate(fd, 0);
    }
    return 0;
}

int opCreate(const char* path, mode_t mode, fuse_file_info* info) {
    int fd = -1;
    const int result = makeName(Op::create, path, [&](int at, const char* name) {
        return fd = openat(at, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    });
    if (result == -EEXIST && (info->flags & O_EXCL) == 0)
        return opOpen(path, info);
    if (result == 0)
        keep(info, fd, path);
    return result;
}

int opRead(const char*, char* bytes, std::size_t size, off_t offset, fuse_file_info* info) {
    const auto& handle = handleOf(info);
    const auto got = pread(handle.fd, bytes, size, offset);
    if (got < 0)
        return -errno;
    const auto verdict = judge(Op::read, handle.path, static_cast<std::size_t>(got));
    if (verdict.error != 0)
        return -verdict.error;
    if (verdict.flipBit >= 0 && verdict.flipBit / 8 < got)
        bytes[verdict.flipBit / 8] = static_cast<char>(bytes[verdict.flipBit / 8] ^ (1 << verdict.flipBit % 8));
    return static_cast<int>(verdict.keep >= 0 ? verdict.keep : got);
}

int opWrite(const char*, const char* bytes, std::size_t size, off_t offset, fuse_file_info* info) {
    const auto& handle = handleOf(info);
    const auto verdict = judge(Op::write, handle.path, size);
    if (verdict.error != 0)
        return -verdict.error;
    std::string flipped;
    if (verdict.flipBit >= 0 && static_cast<std::size_t>(verdict.flipBit / 8) < size) {
        flipped.assign(bytes, size);
        auto& byte = flipped[static_cast<std::size_t>(verdict.flipBit / 8)];
        byte = static_cast<char>(byte ^ (1 << verdict.flipBit % 8));
        bytes = flipped.data();
    }
    const std::lock_guard lock(disk().mutex);
    const auto count = verdict.keep >= 0 ? static_cast<std::size_t>(verdict.keep) : size;
    return static_cast<int>(disk().power.write(handle.fd, bytes, count, offset));
}

int opStatfs(const char*, struct statvfs* facts) {
    const auto verdict = judge(Op::statfs, "/");
    return verdict.error != 0 ? -verdict.error : answer(fstatvfs(disk().tree, facts));
}

int opFlush(const char*, fuse_file_info* info) { return -judge(Op::close, handleOf(info).path).error; }

int opRelease(const char*, fuse_file_info* info) {
    close(handleOf(info).fd);
    delete &handleOf(info);
    return 0;
}

int opFsync(const char*, int, fuse_file_info* info) {
    const auto& handle = handleOf(info);
    const auto verdict = judge(Op::fsync, handle.path);
    const std::lock_guard lock(disk().mutex);
    disk().power.flushFile(handle.fd, flushOf(verdict));
    return -verdict.error;
}

int opOpendir(const char* path, fuse_file_info* info) {
    const int fd = openat(disk().tree, relative(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    keep(info, fd, path);
    return 0;
}

int opReaddir(const char*, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info* info, fuse_readdir_flags) {
    if (const auto verdict = judge(Op::readdir, handleOf(info).path); verdict.error != 0)
        return -verdict.error;
    DIR* folder = fdopendir(openat(handleOf(info).fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        return -errno;
    while (const dirent* entry = readdir(folder)) {
        struct stat facts = {};
        facts.st_ino = entry->d_ino;
        facts.st_mode = static_cast<mode_t>(DTTOIF(entry->d_type));
        fill(buffer, entry->d_name, &facts, 0, fuse_fill_dir_flags{});
    }
    closedir(folder);
    return 0;
}

int opFsyncdir(const char*, int, fuse_file_info* info) {
    const auto& handle = handleOf(info);
    const auto verdict = judge(Op::fsyncdir, handle.path);
    const std::lock_guard lock(disk().mutex);
    if (verdict.error == 0)
        disk().power.flushFolder(handle.fd);
    return -verdict.error;
}

int opFallocate(const char*, int mode, off_t offset, off_t length, fuse_file_info* info) {
    const auto& handle = handleOf(info);
    const auto verdict = judge(Op::fallocate, handle.path);
    if (verdict.error != 0)
        return -verdict.error;
    // Only reserving is understood: anything else would change content behind the power model's back.
    return mode != FALLOC_FL_KEEP_SIZE ? -EOPNOTSUPP : answer(fallocate(handle.fd, mode, offset, length));
}

void* opInit(fuse_conn_info* connection, fuse_config* config) {
    config->use_ino = 1;
    config->nullpath_ok = 1;
    config->hard_remove = 1;
    config->entry_timeout = config->attr_timeout = config->negative_timeout = 0; // operations can be counted on
    connection->max_write = 1 << 20;
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
    return fuse_get_context()->private_data;
}

} // namespace

int Disk::syncFileSystem(pid_t caller) {
    const auto verdict = rules.judge(Op::syncfs, "/", 0, caller);
    const std::lock_guard lock(mutex);
    power.flushAll(flushOf(verdict));
    return -verdict.error;
}

const fuse_operations& operations() {
    static const fuse_operations table = [] {
        fuse_operations ops = {};
        ops.init = opInit;
        ops.getattr = opGetattr;
        ops.mkdir = opMkdir;
        ops.unlink = opUnlink;
        ops.rmdir = opRmdir;
        ops.rename = opRename;
        ops.chmod = opChmod;
        ops.utimens = opUtimens;
        ops.truncate = opTruncate;
        ops.open = opOpen;
        ops.create = opCreate;
        ops.read = opRead;
        ops.write = opWrite;
        ops.statfs = opStatfs;
        ops.flush = opFlush;
        ops.release = ops.releasedir = opRelease;
        ops.fsync = opFsync;
        ops.opendir = opOpendir;
        ops.readdir = opReaddir;
        ops.fsyncdir = opFsyncdir;
        ops.fallocate = opFallocate;
        return ops;
    }();
    return table;
}

} // namespace velmora::faultdisk
