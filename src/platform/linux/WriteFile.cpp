#include "platform/IO.h"
#include "platform/linux/OpenFile.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/random.h>
#include <sys/stat.h>

// Small files that must be there whole or not at all: temporary name in the same folder, data flushed, renamed, folder
// flushed. A crash before the rename leaves at most a file ".velmora-….tmp"; a crash after it leaves the new file, and
// only once the folder is flushed does the call return. The temporary name does not carry the final one, which may
// already be as long as a name can be.
namespace velmora::IO {

namespace {

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string temporaryName(const std::string& folder) {
    static std::atomic<unsigned> count{0};
    unsigned long long random = 0;
    if (::getrandom(&random, sizeof random, GRND_NONBLOCK) < 0)
        random = 0; // the process id and the count are enough against ourselves; O_EXCL against others
    char name[80];
    std::snprintf(name, sizeof name, "/.velmora-%d-%u-%016llx.tmp", ::getpid(), count.fetch_add(1), random);
    return folder + name;
}

bool isTemporaryName(std::string_view name) {
    constexpr std::string_view prefix = ".velmora-";
    constexpr std::string_view suffix = ".tmp";
    constexpr std::string_view probe = ".offload-cachecheck-"; // written to see whether a disk answers past the cache
    const auto take = [&](std::string_view digits) {
        const std::size_t count = std::min(name.find_first_not_of(digits), name.size());
        name.remove_prefix(count);
        return count;
    };
    if (name.starts_with(probe)) {
        name.remove_prefix(probe.size());
        return take("0123456789") > 0 && take("-") == 1 && take("0123456789abcdef") > 0 && name.empty();
    }
    if (name.size() < prefix.size() + suffix.size() || !name.starts_with(prefix) || !name.ends_with(suffix))
        return false;
    name.remove_prefix(prefix.size());
    name.remove_suffix(suffix.size());
    return take("0123456789") > 0 && take("-") == 1 && take("0123456789") > 0 && take("-") == 1 &&
           take("0123456789abcdef") == 16 && name.empty();
}

void writeAll(int fd, std::string_view bytes, const std::string& path) {
    while (!bytes.empty()) {
        const ssize_t n = retryInterrupted([&] { return ::write(fd, bytes.data(), bytes.size()); });
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            throwErrno("write", path);
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

// Holds the temporary file's name and removes it unless the rename took it away.
class TemporaryFile {
public:
    TemporaryFile(const std::string& folder, const std::string& shownPath, std::string_view bytes,
                  std::optional<mode_t> mode)
        : path_(temporaryName(folder)) {
        Descriptor fd(retryInterrupted(
            [&] { return ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644); }));
        check(fd.get(), "create", shownPath);
        try {
            writeAll(fd.get(), bytes, shownPath);
            // FAT and some network file systems have no modes of their own: a refusal costs nothing.
            if (mode && ::fchmod(fd.get(), *mode) != 0 && errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS)
                throwErrno("chmod", shownPath);
            check(retryInterrupted([&] { return ::fsync(fd.get()); }), "fsync", shownPath);
            check(::close(fd.release()), "close", shownPath);
        } catch (...) {
            ::unlink(path_.c_str());
            throw;
        }
    }
    ~TemporaryFile() {
        if (!taken_)
            ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const { return path_; }
    void taken() { taken_ = true; }

private:
    std::string path_;
    bool taken_ = false;
};

} // namespace

void writeFileNew(const std::string& path, std::string_view bytes) {
    const std::string folder = folderOf(path);
    if (exists(path))
        throw IOError("create", path, EEXIST);
    TemporaryFile temporary(folder, path, bytes, std::nullopt);
    try {
        renameNoReplace(temporary.path(), path);
    } catch (const IOError& error) {
        throw IOError(error.code() == EEXIST ? "create" : error.op(), path, error.code());
    }
    temporary.taken();
    syncFolder(folder);
}

void writeFileDurably(const std::string& path, std::string_view bytes) {
    const std::string folder = folderOf(path);
    struct stat old{};
    const bool replaces = ::lstat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode);
    // A file that its owner has closed to others stays closed.
    TemporaryFile temporary(folder, path, bytes, replaces ? std::optional(old.st_mode & 0777) : std::nullopt);
    rename(temporary.path(), path);
    temporary.taken();
    syncFolder(folder);
}

void removeTemporaries(const std::string& folder) noexcept {
    Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opened ? ::fdopendir(opened.get()) : nullptr, ::closedir);
    if (dir == nullptr)
        return;
    const int fd = opened.release(); // the stream closes it
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one stream is used by one thread, which is all that glibc asks
    while (const dirent* entry = ::readdir(dir.get())) {
        struct stat info{};
        if (isTemporaryName(entry->d_name) && ::fstatat(fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(info.st_mode))
            ::unlinkat(fd, entry->d_name, 0);
    }
}

} // namespace velmora::IO
