#pragma once

#include "platform/File.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// One name in a folder, as readdir gives it.
struct IOEntry {
    std::string name;
    std::uint32_t type = 0; // a DT_ constant of readdir(3); DT_UNKNOWN is resolved with lstat before it is handed out

    bool isFile() const noexcept; // a link is neither
    bool isFolder() const noexcept;
};

// Small operations on paths. All throw IOError with the failing call and its path unless they say otherwise.
namespace IO {

AlignedBuffer allocateAligned(std::size_t bytes);

// Creates a folder and its missing parents (mode 0755); existing ones are fine. A link in the place of a folder that
// has to be created is not followed.
void mkdirs(const std::string& path);
// Creates one folder below one that stands; an existing one is fine, a link or a file in its place is not. For what
// belongs into a folder of a disk: were the disk gone, its whole path would be made on the disk below.
void mkdirBelow(const std::string& path);
// Creates one folder that must not exist yet: throws IOError("mkdir", path, EEXIST) when anything has its name.
void mkdirNew(const std::string& path);
// Removes an empty folder; false when that cannot be.
bool removeEmptyFolder(const std::string& path) noexcept;

// Writes a new file: temporary name in the same folder, fsync, rename that never replaces, fsync of the folder.
// Throws IOError("create", path, EEXIST) when the name is taken.
void writeFileNew(const std::string& path, std::string_view bytes);
// The same, replacing an existing file atomically: a reader and a crash see the old bytes or the new ones.
void writeFileDurably(const std::string& path, std::string_view bytes);

// Removes the temporary files that killed calls of the two above left in a folder. Call it only while nobody else
// writes there. Errors are ignored. Links are not followed, also when the folder itself is one.
void removeTemporaries(const std::string& folder) noexcept;

// Never replaces: throws IOError("rename", to, EEXIST). What stands in where the file system
// has no such call is described in linux/RenameNoReplace.h.
void renameNoReplace(const std::string& from, const std::string& to);
void rename(const std::string& from, const std::string& to);
void unlink(const std::string& path);

// fsync of a folder: names created, renamed or removed in it are on the medium.
void syncFolder(const std::string& path);
// syncfs on the file system that holds `path`, and fsync of that folder: all data and names written before it are on
// the medium.
// Hold the object from before the first write, so that an error of any file written meanwhile is seen.
class FileSystemSync {
public:
    explicit FileSystemSync(const std::string& folder);
    ~FileSystemSync();
    FileSystemSync(const FileSystemSync&) = delete;
    FileSystemSync& operator=(const FileSystemSync&) = delete;
    void sync(); // throws IOError("syncfs", …); a failure is final
    // Whether sync() covers the contents of every file on this file system. A FUSE daemon over a folder and a network
    // server hear of a file's data only through its own fsync: there each file needs UncachedWriter::flush().
    bool coversEveryFile() const noexcept { return coversEveryFile_; }

private:
    std::string path_;
    int fd_ = -1;
    bool coversEveryFile_ = true;
};

// Whether anything has that name, a link that leads nowhere too. ENOENT and ENOTDIR mean no. Any other error leaves it
// open: it is thrown, so that a record that a failing disk does not show is not taken for one that was never written.
bool exists(const std::string& path);
// True when nothing has that name for certain; false also where that cannot be told.
bool isGone(const std::string& path) noexcept;
// The room that a file takes on its disk; 0 when there is none, or it cannot be told.
std::int64_t allocatedBytes(const std::string& path) noexcept;
// True when the folder of `path` has an entry of that very name. A disk that folds case answers `exists` for others
// too.
bool holdsName(const std::string& path);
bool isFolder(const std::string& path);                  // follows links; throws as `exists` does
bool isWritable(const std::string& path);                // access(2) W_OK
bool isExecutableFile(const std::string& path) noexcept; // a regular file, and access(2) X_OK
FileFacts stat(const std::string& path);                 // follows links
FileFacts lstat(const std::string& path);
std::string realPath(const std::string& path); // throws IOError("realpath", …)

// Names of a folder in directory order, without "." and "..".
std::vector<IOEntry> list(const std::string& folder);

// Reads a whole small file; throws IOError("read", path, EFBIG) when it is longer than `limit`.
std::string readFile(const std::string& path, std::int64_t limit);
// The same for `root`/`relative`, following no link below `root`; refuses as UncachedReader::beneath does.
std::string readFileBeneath(const std::string& root, const std::string& relative, std::int64_t limit);

// "ext4", "xfs", "btrfs", "exfat", "msdos" (every FAT), "ntfs", … as the mount table says; "?" when unknown.
std::string filesystemType(const std::string& path);

// Free bytes for an ordinary user, and the size of the file system.
struct Capacity {
    std::int64_t total = 0;
    std::int64_t free = 0;
};
Capacity capacity(const std::string& path);

} // namespace IO

} // namespace velmora
