#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <sys/types.h>
#include <vector>

namespace velmora::faultdisk {

// Remembers how to take back whatever has not been flushed yet, and does so when the power goes.
//
// The promise is no stronger than POSIX: fsync of a file keeps its data and length, fsync of a folder keeps the names
// created, renamed and removed in that folder, syncfs keeps everything. In particular fsync of a new file does not keep
// its name. A flush that was answered with an error keeps nothing, and no later flush brings those bytes back: the
// kernel has dropped them from its list of dirty pages.
//
// Removed files wait in a second folder (the grave) until the removal is flushed. Not thread-safe.
class PowerModel {
public:
    PowerModel(int grave, bool recording) : grave_(grave), recording_(recording) {}

    // Write and truncate through the model, so that it can read what is overwritten. They return bytes or -errno.
    std::int64_t write(int fd, const char* bytes, std::size_t count, std::int64_t offset);
    int truncate(int fd, std::int64_t size);
    enum class Flush { done, failed, interrupted }; // interrupted: the process died in it, the disk is not to blame
    void flushFile(int fd, Flush how);

    // `folder` is any descriptor of the folder that holds `name`.
    void created(int folder, const std::string& name);
    int remove(int folder, const std::string& name, bool isFolder);
    int rename(int fromFolder, const std::string& from, int toFolder, const std::string& to, unsigned flags);
    void flushFolder(int folder);
    void flushAll(Flush how);

    // Takes back a choice of the unflushed changes: all of them, none, a prefix of the names in order, or any mixture.
    // `garbage` is the share, in percent, of torn-up pieces among unflushed data that landed. Says what it did.
    std::string cut(std::uint64_t seed, unsigned garbage);

private:
    struct Descriptor { // owns a descriptor of a file or folder of the backing folder
        explicit Descriptor(int number) : fd(number) {}
        ~Descriptor();
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;
        int fd;
    };
    struct Piece { // one unflushed change of a file's content
        std::int64_t offset = 0;
        std::int64_t length = 0; // bytes that were written; 0 for a truncate
        std::int64_t sizeBefore = 0;
        std::vector<char> before; // what stood at `offset`
        bool lost = false;        // a flush of it failed
    };
    struct File {
        std::shared_ptr<Descriptor> handle;
        std::vector<Piece> pieces;
        std::int64_t sizeOnDisk = 0; // at the last flush
    };
    struct Name { // one unflushed change of names
        enum class Kind { create, remove, rename } kind = Kind::create;
        std::shared_ptr<Descriptor> folder, toFolder;
        ino_t inode = 0, toInode = 0; // of the folders
        std::string name, toName;
        std::string buried; // name in the grave of what was removed or replaced
    };
    std::shared_ptr<Descriptor> folderOf(int folder, ino_t& inode);
    File& fileOf(int fd);
    static void flush(File& file, Flush how);
    void takeBack(File& file, std::mt19937_64& random, unsigned garbage, bool everything, std::string& said);
    void takeBack(const Name& name);
    std::string bury(int folder, const std::string& name, int& error);

    int grave_;
    bool recording_;
    std::uint64_t buriedCount_ = 0;
    std::map<ino_t, File> files_;
    std::map<ino_t, std::shared_ptr<Descriptor>> folders_;
    std::vector<Name> names_;
};

} // namespace velmora::faultdisk
