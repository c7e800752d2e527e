#include "platform/FolderReader.h"

#include "base/Text.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/OpenFile.h"

#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace velmora {

struct FolderReader::Stream {
    Stream(std::string folder, Descriptor fd) : path(std::move(folder)), entries(::fdopendir(fd.get())) {
        if (entries == nullptr)
            throwErrno("open", path);
        fd.release(); // closedir closes it
    }
    ~Stream() { ::closedir(entries); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    int fd() const { return ::dirfd(entries); }

    std::string path;
    DIR* entries;
};

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

Descriptor openFolder(const std::string& path) {
    Descriptor fd(retryInterrupted([&] { return ::open(path.c_str(), folderFlags); }));
    check(fd.get(), "open", path);
    return fd;
}

// Component by component, so that no link anywhere can lead out of the root, on every kernel. Paths longer than other
// calls take are refused: what lies there could not be opened for reading either, and a chain of folders without end
// would fill the memory with its paths.
Descriptor openFolderBeneath(int parent, const std::string& relative, const std::string& path) {
    if (relative.size() >= PATH_MAX)
        throw IOError("open", path, ENAMETOOLONG);
    Descriptor folder;
    if (relative.empty()) {
        folder = Descriptor(retryInterrupted([&] { return ::openat(parent, ".", folderFlags); }));
        check(folder.get(), "open", path);
        return folder;
    }
    for (const std::string_view part : split(relative, '/')) {
        if (part.empty() || part == "." || part == "..")
            throw IOError("open", path, EXDEV);
        const std::string name(part);
        const int from = folder ? folder.get() : parent;
        Descriptor next(retryInterrupted([&] { return ::openat(from, name.c_str(), folderFlags | O_NOFOLLOW); }));
        check(next.get(), "open", path);
        folder = std::move(next);
    }
    return folder;
}

bool isSelfOrParent(const char* name) { return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)); }

} // namespace

FolderReader::FolderReader(const std::string& path) : stream_(std::make_unique<Stream>(path, openFolder(path))) {}
FolderReader::FolderReader(std::unique_ptr<Stream> stream) : stream_(std::move(stream)) {}
FolderReader::~FolderReader() = default;
FolderReader::FolderReader(FolderReader&&) noexcept = default;

FolderReader FolderReader::beneath(const std::string& relative) const {
    const std::string path = relative.empty() ? stream_->path : stream_->path + '/' + relative;
    return FolderReader(std::make_unique<Stream>(path, openFolderBeneath(stream_->fd(), relative, path)));
}

bool FolderReader::next(std::string& name) {
    while (true) {
        errno = 0; // readdir tells its end and its failures apart by this alone
        const dirent* entry = ::readdir(stream_->entries);
        if (entry == nullptr) {
            if (errno != 0)
                throwErrno("read", stream_->path);
            return false;
        }
        if (!isSelfOrParent(entry->d_name)) {
            name = entry->d_name;
            return true;
        }
    }
}

FileFacts FolderReader::lstat(const std::string& name) const {
    struct stat info{};
    if (::fstatat(stream_->fd(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        throwErrno("stat", stream_->path + '/' + name);
    return factsOf(info);
}

} // namespace velmora
