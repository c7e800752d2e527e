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

// Asks the rules first.
template <class Action>
int act(Op op, const std::string& path, Action action) {
    const auto verdict = judge(op, path);
    return verdict.error != 0 ? -verdict.error : action();
}

// Runs a change of names in one folder and tells the power model.
template <class Change>
int makeName(Op op, const char* path, Change change) {
    return act(op, path, [&] {
        const Parent parent(path);
        const std::lock_guard lock(disk().mutex);
        if (change(parent.fd, parent.name.c_str()) < 0)
            return -errno;
        disk().power.created(parent.fd, parent.name);
        return 0;
    });
}

int removeName(Op op, const char* path) {
    return act(op, path, [&] {
        const Parent parent(path);
        const std::lock_guard lock(disk().mutex);
        return disk().power.remove(parent.fd, parent.name, op == Op::rmdir);
    });
}

int opRename(const char* from, const char* to, unsigned flags) {
    return act(Op::rename, from, [&] {
        const Parent source(from), target(to);
        const std::lock_guard lock(disk().mutex);
        return disk().power.rename(source.fd, source.name, target.fd, target.name, flags);
    });
}

int opTruncate(const char* path, off_t size, fuse_file_info* info) {
    return act(Op::truncate, info ? handleOf(info).path : path, [&] {
        const int fd = info ? handleOf(info).fd : openat(disk().tree, relative(path), O_RDWR | O_CLOEXEC);
        if (fd < 0)
            return -errno;
        const std::lock_guard lock(disk().mutex);
        const int result = disk().power.truncate(fd, size);
        if (!info)
            close(fd);
        return result;
    });
}

int keep(fuse_file_info* info, int fd, const char* path) {
    if (fd < 0)
        return -errno;
    info->fh = reinterpret_cast<std::uint64_t>(new Handle{fd, path});
    return 0;
}

int opOpen(const char* path, fuse_file_info* info) {
    // Reading is needed to remember what a write overwrites; alignment is the caller's business with us, not ours with
    // the folder beneath.
    const int access = (info->flags & O_ACCMODE) == O_RDONLY ? O_RDONLY : O_RDWR;
    const int result = act(Op::open, path, [&] {
        return keep(info, openat(disk().tree, relative(path), access | O_CLOEXEC | O_NOFOLLOW), path);
    });
    if (result != 0 || (info->flags & O_TRUNC) == 0)
        return result;
    const std::lock_guard lock(disk().mutex);
    return disk().power.truncate(handleOf(info).fd, 0);
}

int opCreate(const char* path, mode_t mode, fuse_file_info* info) {
    const int result = makeName(Op::create, path, [&](int at, const char* name) {
        return keep(info, openat(at, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode), path);
    });
    return result == -EEXIST && (info->flags & O_EXCL) == 0 ? opOpen(path, info) : result;
}

void turnOver(char* bytes, std::size_t size, std::int64_t bit) {
    if (bit >= 0 && static_cast<std::size_t>(bit / 8) < size)
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
}

int opRead(const char*, char* bytes, std::size_t size, off_t offset, fuse_file_info* info) {
    const auto& handle = handleOf(info);
    const auto got = pread(handle.fd, bytes, size, offset);
    if (got < 0)
        return -errno;
    const auto verdict = judge(Op::read, handle.path, static_cast<std::size_t>(got));
    if (verdict.error != 0)
        return -verdict.error;
    turnOver(bytes, static_cast<std::size_t>(got), verdict.flipBit);
    return static_cast<int>(verdict.keep >= 0 ? verdict.keep : got);
}

int opWrite(const char*, const char* bytes, std::size_t size, off_t offset, fuse_file_info* info) {
    const auto& handle = handleOf(info);
    const auto verdict = judge(Op::write, handle.path, size);
    if (verdict.error != 0)
        return -verdict.error;
    std::string flipped;
    if (verdict.flipBit >= 0) {
        flipped.assign(bytes, size);
        turnOver(flipped.data(), size, verdict.flipBit);
        bytes = flipped.data();
    }
    const std::lock_guard lock(disk().mutex);
    const auto count = verdict.keep >= 0 ? static_cast<std::size_t>(verdict.keep) : size;
    return static_cast<int>(disk().power.write(handle.fd, bytes, count, offset));
}

int opRelease(const char*, fuse_file_info* info) {
    close(handleOf(info).fd);
    delete &handleOf(info);
    return 0;
}

int opFsync(const char*, int, fuse_file_info* info) {
    const auto verdict = judge(Op::fsync, handleOf(info).path);
    const std::lock_guard lock(disk().mutex);
    disk().power.flushFile(handleOf(info).fd, flushOf(verdict));
    return -verdict.error;
}

int opFsyncdir(const char*, int, fuse_file_info* info) {
    return act(Op::fsyncdir, handleOf(info).path, [&] {
        const std::lock_guard lock(disk().mutex);
        disk().power.flushFolder(handleOf(info).fd);
        return 0;
    });
}

int opReaddir(const char*, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info* info, fuse_readdir_flags) {
    return act(Op::readdir, handleOf(info).path, [&] {
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
    });
}

// Only reserving is understood: anything else would change content behind the power model's back.
int opFallocate(const char*, int mode, off_t offset, off_t length, fuse_file_info* info) {
    return act(Op::fallocate, handleOf(info).path, [&] {
        return mode != FALLOC_FL_KEEP_SIZE ? -EOPNOTSUPP : answer(fallocate(handleOf(info).fd, mode, offset, length));
    });
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
        ops.getattr = [](const char* path, struct stat* facts, fuse_file_info* info) {
            return act(Op::lookup, info ? handleOf(info).path : path, [&] {
                return answer(info ? fstat(handleOf(info).fd, facts)
                                   : fstatat(disk().tree, relative(path), facts, AT_SYMLINK_NOFOLLOW));
            });
        };
        ops.mkdir = [](const char* path, mode_t mode) {
            return makeName(Op::mkdir, path, [&](int at, const char* name) { return mkdirat(at, name, mode); });
        };
        ops.unlink = [](const char* path) { return removeName(Op::unlink, path); };
        ops.rmdir = [](const char* path) { return removeName(Op::rmdir, path); };
        ops.rename = opRename;
        ops.chmod = [](const char* path, mode_t mode, fuse_file_info*) {
            return act(Op::chmod, path ? path : "",
                       [&] { return answer(fchmodat(disk().tree, relative(path), mode, 0)); });
        };
        ops.utimens = [](const char* path, const timespec times[2], fuse_file_info* info) {
            return act(Op::utimens, info ? handleOf(info).path : path, [&] {
                return answer(info ? futimens(handleOf(info).fd, times)
                                   : utimensat(disk().tree, relative(path), times, AT_SYMLINK_NOFOLLOW));
            });
        };
        ops.truncate = opTruncate;
        ops.open = opOpen;
        ops.create = opCreate;
        ops.read = opRead;
        ops.write = opWrite;
        ops.statfs = [](const char*, struct statvfs* facts) {
            return act(Op::statfs, "/", [&] { return answer(fstatvfs(disk().tree, facts)); });
        };
        ops.flush = [](const char*, fuse_file_info* info) { return -judge(Op::close, handleOf(info).path).error; };
        ops.release = ops.releasedir = opRelease;
        ops.fsync = opFsync;
        ops.opendir = [](const char* path, fuse_file_info* info) {
            return keep(info, openat(disk().tree, relative(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
        };
        ops.readdir = opReaddir;
        ops.fsyncdir = opFsyncdir;
        ops.fallocate = opFallocate;
        return ops;
    }();
    return table;
}

} // namespace velmora::faultdisk
