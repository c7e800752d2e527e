#include "PowerModel.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace velmora::faultdisk {

namespace {

struct stat statOf(int fd) {
    struct stat facts = {};
    fstat(fd, &facts);
    return facts;
}

// The medium writes whole sectors: a write that was on its way tears between them, never inside one.
constexpr std::int64_t sector = 512;

} // namespace

PowerModel::Descriptor::~Descriptor() { close(fd); }

PowerModel::File& PowerModel::fileOf(int fd) {
    auto& file = files_[statOf(fd).st_ino];
    if (!file.handle) {
        file.sizeOnDisk = statOf(fd).st_size;
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        file.handle = std::make_shared<Descriptor>(open(path.c_str(), O_RDWR | O_CLOEXEC));
    }
    return file;
}

std::shared_ptr<PowerModel::Descriptor> PowerModel::folderOf(int folder, ino_t& inode) {
    inode = statOf(folder).st_ino;
    auto& known = folders_[inode];
    if (!known)
        known = std::make_shared<Descriptor>(fcntl(folder, F_DUPFD_CLOEXEC, 0));
    return known;
}

std::int64_t PowerModel::write(int fd, const char* bytes, std::size_t count, std::int64_t offset) {
    Piece piece;
    File* file = nullptr;
    if (recording_) {
        file = &fileOf(fd);
        piece.offset = offset;
        piece.sizeBefore = statOf(fd).st_size;
        const auto overlap = std::clamp<std::int64_t>(piece.sizeBefore - offset, 0, static_cast<std::int64_t>(count));
        piece.before.resize(static_cast<std::size_t>(overlap));
        if (overlap > 0 && pread(file->handle->fd, piece.before.data(), piece.before.size(), offset) != overlap)
            return -EIO;
    }
    const auto written = pwrite(fd, bytes, count, offset);
    if (written < 0)
        return -errno;
    if (file) {
        piece.length = written;
        piece.before.resize(std::min(piece.before.size(), static_cast<std::size_t>(written)));
        file->pieces.push_back(std::move(piece));
    }
    return written;
}

int PowerModel::truncate(int fd, std::int64_t size) {
    if (recording_) {
        auto& file = fileOf(fd);
        Piece piece;
        piece.offset = size;
        piece.sizeBefore = statOf(fd).st_size;
        piece.before.resize(static_cast<std::size_t>(std::max<std::int64_t>(piece.sizeBefore - size, 0)));
        if (!piece.before.empty() && pread(file.handle->fd, piece.before.data(), piece.before.size(), size) < 0)
            return -errno;
        file.pieces.push_back(std::move(piece));
    }
    return ftruncate(fd, size) == 0 ? 0 : -errno;
}

void PowerModel::flush(File& file, Flush how) {
    if (how == Flush::failed)
        for (auto& piece : file.pieces)
            piece.lost = true;
    if (how == Flush::done)
        file.sizeOnDisk = statOf(file.handle->fd).st_size;
    std::erase_if(file.pieces, [&](const Piece& piece) { return how == Flush::done && !piece.lost; });
}

void PowerModel::flushFile(int fd, Flush how) {
    const auto found = files_.find(statOf(fd).st_ino);
    if (found == files_.end())
        return;
    flush(found->second, how);
    if (found->second.pieces.empty())
        files_.erase(found);
}

void PowerModel::created(int folder, const std::string& name) {
    if (!recording_)
        return;
    Name change;
    change.folder = folderOf(folder, change.inode);
    change.name = name;
    names_.push_back(std::move(change));
}

std::string PowerModel::bury(int folder, const std::string& name, int& error) {
    // The grave may hold what an earlier server on the same folder has left.
    std::string buried = std::to_string(getpid()) + "-" + std::to_string(++buriedCount_);
    error = renameat(folder, name.c_str(), grave_, buried.c_str()) == 0 ? 0 : -errno;
    return buried;
}

int PowerModel::remove(int folder, const std::string& name, bool isFolder) {
    if (!recording_ || isFolder) // a folder must be looked at by the kernel: it has to be empty
        if (unlinkat(folder, name.c_str(), isFolder ? AT_REMOVEDIR : 0) != 0)
            return -errno;
    if (!recording_)
        return 0;
    Name change;
    change.kind = Name::Kind::remove;
    change.folder = folderOf(folder, change.inode);
    change.name = name;
    int error = 0;
    if (!isFolder)
        change.buried = bury(folder, name, error);
    if (error == 0)
        names_.push_back(std::move(change));
    return error;
}

int PowerModel::rename(int fromFolder, const std::string& from, int toFolder, const std::string& to, unsigned flags) {
    Name change;
    struct stat source = {}, target = {};
    const bool taken = fstatat(toFolder, to.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0;
    if (fstatat(fromFolder, from.c_str(), &source, AT_SYMLINK_NOFOLLOW) == 0 && taken && recording_ && flags == 0 &&
        !S_ISDIR(target.st_mode) && !S_ISDIR(source.st_mode) && source.st_ino != target.st_ino) {
        int error = 0;
        change.buried = bury(toFolder, to, error);
        if (error != 0)
            return error;
    }
    if (renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), flags) != 0)
        return -errno;
    if (!recording_)
        return 0;
    change.kind = Name::Kind::rename;
    change.folder = folderOf(fromFolder, change.inode);
    change.toFolder = folderOf(toFolder, change.toInode);
    change.name = from;
    change.toName = to;
    names_.push_back(std::move(change));
    return 0;
}

void PowerModel::flushFolder(int folder) {
    const auto inode = statOf(folder).st_ino;
    std::erase_if(names_, [&](const Name& change) {
        // A move between folders stands as soon as one of them is flushed.
        const bool flushed = change.inode == inode || (change.kind == Name::Kind::rename && change.toInode == inode);
        if (flushed && !change.buried.empty())
            unlinkat(grave_, change.buried.c_str(), 0);
        return flushed;
    });
}

void PowerModel::flushAll(Flush how) {
    for (auto& [inode, file] : files_)
        flush(file, how);
    std::erase_if(files_, [](const auto& entry) { return entry.second.pieces.empty(); });
    if (how != Flush::done)
        return;
    for (const auto& change : names_)
        if (!change.buried.empty())
            unlinkat(grave_, change.buried.c_str(), 0);
    names_.clear();
}

std::string PowerModel::cut(std::uint64_t seed, unsigned garbage) {
    std::mt19937_64 random(seed);
    enum { nothingLands, everythingLands, inOrder, anyOrder };
    const auto how = seed == ~std::uint64_t{0} ? nothingLands
                     : random() % 8 < 6        ? (random() % 2 == 0 ? inOrder : anyOrder)
                                               : (random() % 2 == 0 ? nothingLands : everythingLands);
    std::string said = "names " + std::to_string(names_.size());
    const auto landed = how == everythingLands ? names_.size() : how == inOrder ? random() % (names_.size() + 1) : 0;
    for (auto i = names_.size(); i-- > landed;)
        if (how != anyOrder || random() % 2 == 0) {
            takeBack(names_[i]);
            said += " -" + names_[i].name;
        }
    for (auto& [inode, file] : files_)
        if (how != everythingLands ||
            std::any_of(file.pieces.begin(), file.pieces.end(), [](const Piece& p) { return p.lost; }))
            takeBack(file, random, garbage, how == nothingLands, said);
    return said;
}

void PowerModel::takeBack(const Name& change) {
    const int folder = change.folder->fd;
    const char* name = change.name.c_str();
    int ignored = 0; // a change may rest on another one that was taken back or not: then there is nothing to do
    switch (change.kind) {
    case Name::Kind::create:
        bury(folder, change.name, ignored);
        break;
    case Name::Kind::remove:
        if (change.buried.empty())
            mkdirat(folder, name, 0755);
        else
            renameat2(grave_, change.buried.c_str(), folder, name, RENAME_NOREPLACE);
        break;
    case Name::Kind::rename:
        renameat2(change.toFolder->fd, change.toName.c_str(), folder, name, RENAME_NOREPLACE);
        if (!change.buried.empty())
            renameat2(grave_, change.buried.c_str(), change.toFolder->fd, change.toName.c_str(), RENAME_NOREPLACE);
        break;
    }
}

void PowerModel::takeBack(File& file, std::mt19937_64& random, unsigned garbage, bool everything, std::string& said) {
    if (file.pieces.empty())
        return;
    const int fd = file.handle->fd;
    const auto live = statOf(fd).st_size;
    std::int64_t size = file.sizeOnDisk, gone = 0, torn = 0;
    std::int64_t lengthOnDisk = random() % 2 == 0 ? live : size; // the length travels apart from the data
    for (auto piece = file.pieces.rbegin(); piece != file.pieces.rend(); ++piece) {
        if (piece->length == 0) { // a truncate: bytes that were cut off come back, or stay away
            if (everything || piece->lost || random() % 2 == 0) {
                if (!piece->before.empty())
                    std::ignore = pwrite(fd, piece->before.data(), piece->before.size(), piece->offset);
                ++gone;
            }
            continue;
        }
        for (std::int64_t at = 0; at < piece->length;) {
            // Runs of sectors share a fate: a disk writes in larger strokes than it tears.
            const auto run = std::min(piece->length - at, sector << (random() % 12));
            const auto fate = random() % 100;
            const bool vanishes = everything || piece->lost || fate < 40;
            if (vanishes || fate < 40 + garbage) {
                std::vector<char> bytes(static_cast<std::size_t>(run), 0);
                for (std::int64_t i = 0; i < run; ++i) {
                    const auto index = static_cast<std::size_t>(at + i);
                    bytes[static_cast<std::size_t>(i)] = !vanishes                      ? static_cast<char>(random())
                                                         : index < piece->before.size() ? piece->before[index]
                                                                                        : '\0';
                }
                std::ignore = pwrite(fd, bytes.data(), bytes.size(), piece->offset + at);
                ++(vanishes ? gone : torn);
            } else {
                size = std::max(size, piece->offset + at + run);
            }
            at += run;
        }
    }
    lengthOnDisk = std::max(lengthOnDisk, random() % 2 == 0 ? size : 0);
    std::ignore = ftruncate(fd, everything ? file.sizeOnDisk : lengthOnDisk);
    said += " file(" + std::to_string(file.pieces.size()) + " pieces, gone " + std::to_string(gone) + ", torn " +
            std::to_string(torn) + ")";
}

} // namespace velmora::faultdisk
