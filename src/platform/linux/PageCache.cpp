#include "platform/PageCache.h"

#include "platform/linux/OpenFile.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <vector>

namespace velmora {

namespace {

constexpr std::int64_t stretch = 0x40000000; // 1 GiB: keeps the mapping and its page vector small

std::int64_t pageSize() {
    static const std::int64_t size = ::sysconf(_SC_PAGESIZE);
    return size;
}

std::int64_t pagesIn(std::int64_t bytes) { return (bytes + pageSize() - 1) / pageSize(); }

// cachestat(2), which the C library of Debian 12 does not know yet.
struct CachestatRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0; // 0: to the end
};
struct CachestatResult {
    std::uint64_t cached = 0;
    std::uint64_t dirty = 0;
    std::uint64_t writeback = 0;
    std::uint64_t evicted = 0;
    std::uint64_t recentlyEvicted = 0;
};
constexpr long cachestatNumber = 451;

bool isOn(int fd, long magic) {
    struct statfs info{};
    return ::fstatfs(fd, &info) == 0 && info.f_type == magic;
}

bool isOverlay(int fd) { return isOn(fd, OVERLAYFS_SUPER_MAGIC); }

// Behind FUSE a second cache stands: the daemon reads and writes its disk or folder through pages of its own, also when
// we open the file O_DIRECT. When the daemon serves a block device (exFAT, NTFS), those are the pages of that device.
// Whoever may open the device can count and drop them. Any other daemon keeps them where nobody can look.
struct DaemonCache {
    bool exists = false;
    Descriptor device; // closed when it cannot be looked at
};

DaemonCache daemonCacheOf(int fd) {
    DaemonCache cache;
    struct stat info{};
    cache.exists = isOn(fd, FUSE_SUPER_MAGIC);
    if (!cache.exists || ::fstat(fd, &info) != 0 || major(info.st_dev) == 0)
        return cache;
    std::error_code none;
    const std::string node =
        "/dev/" +
        std::filesystem::canonical(fmt::format("/sys/dev/block/{}:{}", major(info.st_dev), minor(info.st_dev)), none)
            .filename()
            .string();
    Descriptor device(retryInterrupted([&] { return ::open(node.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
    struct stat target{};
    if (device && ::fstat(device.get(), &target) == 0 && S_ISBLK(target.st_mode) && target.st_rdev == info.st_dev)
        cache.device = std::move(device);
    return cache;
}

// One call for a file of any length, and no page table is touched.
std::optional<std::int64_t> countByCachestat(int fd) {
    // An overlay file has no pages of its own: they hang on the file below it, which cachestat does not look at and so
    // always answers 0. A mapping leads to the right pages.
    if (isOverlay(fd))
        return std::nullopt;
    CachestatRange range;
    CachestatResult result;
    if (::syscall(cachestatNumber, fd, &range, &result, 0U) != 0)
        return std::nullopt;
    return static_cast<std::int64_t>(result.cached);
}

// mincore reports every page as resident to a caller who neither owns the file nor may write it.
bool mincoreTellsTheTruth(const std::string& path, const struct stat& info) {
    return ::geteuid() == 0 || ::geteuid() == info.st_uid || ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

std::optional<std::int64_t> countByMincore(int fd, std::int64_t size) {
    std::int64_t resident = 0;
    std::vector<unsigned char> vector;
    for (std::int64_t at = 0; at < size; at += stretch) {
        const auto length = static_cast<std::size_t>(std::min(stretch, size - at));
        void* memory = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, at);
        if (memory == MAP_FAILED)
            return std::nullopt;
        vector.assign(static_cast<std::size_t>(pagesIn(static_cast<std::int64_t>(length))), 0);
        const int result = ::mincore(memory, length, vector.data());
        ::munmap(memory, length);
        if (result != 0)
            return std::nullopt;
        resident += std::ranges::count_if(vector, [](unsigned char page) { return (page & 1) != 0; });
    }
    return resident;
}

// False where there is no such flush, or not for us; throws when it failed.
bool flushed(int result, const std::string& path) {
    if (result == 0)
        return true;
    switch (errno) {
    case EINVAL:
    case ENOSYS:
    case EOPNOTSUPP:
    case ESPIPE:
    case EBADF:
    case EROFS:
    case EPERM:
    case EACCES:
        return false;
    default:
        throwErrno("fsync", path);
    }
}

Descriptor openToEvict(const std::string& path) try { return openRegular(path, O_RDONLY); } catch (const IOError&) {
    return {};
}

} // namespace

std::optional<std::pair<std::int64_t, std::int64_t>> PageCache::residentPages(const std::string& path) try {
    const Descriptor fd = openRegular(path, O_RDONLY);
    struct stat info{};
    if (::fstat(fd.get(), &info) != 0)
        return std::nullopt;
    if (info.st_size <= 0)
        return std::pair<std::int64_t, std::int64_t>(0, 0);
    const std::int64_t total = pagesIn(info.st_size);
    auto resident = countByCachestat(fd.get());
    if (!resident && mincoreTellsTheTruth(path, info))
        resident = countByMincore(fd.get(), info.st_size);
    if (!resident)
        return std::nullopt;
    if (const DaemonCache daemon = daemonCacheOf(fd.get()); daemon.exists) {
        // Whose pages these are is not told, so all of them might be this file's.
        const auto behind = daemon.device ? countByCachestat(daemon.device.get()) : std::nullopt;
        if (!behind)
            return std::nullopt;
        *resident += *behind;
    }
    // A large folio may reach behind the end of the file.
    return std::pair(std::min(*resident, total), total);
} catch (const IOError&) {
    return std::nullopt;
}

bool PageCache::evict(const std::string& path) {
    const Descriptor fd = openToEvict(path);
    if (!fd)
        return false;
    // DONTNEED passes over dirty pages and pages under write-back, so they are written and waited for first. An overlay
    // file answers sync_file_range without looking at the file below it; only fdatasync gets there.
    constexpr unsigned all = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    const int written = retryInterrupted(
        [&] { return isOverlay(fd.get()) ? ::fdatasync(fd.get()) : ::sync_file_range(fd.get(), 0, 0, all); });
    if (!flushed(written, path) || ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_DONTNEED) != 0)
        return false;
    const DaemonCache daemon = daemonCacheOf(fd.get());
    if (!daemon.exists)
        return true;
    // fsync makes the daemon give up what it still holds; then its device can be emptied like a file.
    return daemon.device && flushed(retryInterrupted([&] { return ::fsync(fd.get()); }), path) &&
           flushed(retryInterrupted([&] { return ::fdatasync(daemon.device.get()); }), path) &&
           ::posix_fadvise(daemon.device.get(), 0, 0, POSIX_FADV_DONTNEED) == 0;
}

} // namespace velmora
