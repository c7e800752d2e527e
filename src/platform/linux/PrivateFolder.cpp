#include "platform/PrivateFolder.h"

#include "base/Hex.h"
#include "platform/FileLock.h"
#include "platform/IO.h"
#include "platform/RandomBytes.h"

#include <array>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace velmora {

namespace {

constexpr std::string_view prefix = "offload-";
constexpr std::size_t nameLength = prefix.size() + 36;

std::string newName() {
    std::array<std::byte, 16> random{};
    fillRandom(random);
    std::string digits = Hex::ofBytes(random);
    for (const std::size_t at : {20, 16, 12, 8})
        digits.insert(at, 1, '-');
    return std::string(prefix) + digits;
}

std::string temporaryFolder() {
    std::error_code none;
    const auto folder = std::filesystem::temp_directory_path(none);
    return none ? "/tmp" : folder.string();
}

void removeTree(const std::string& path) noexcept {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored); // follows no links
}

// Only whole folders of ours: one that is still being made carries another name.
void sweep(const std::string& within) noexcept {
    try {
        for (const IOEntry& entry : IO::list(within)) {
            const std::string path = within + "/" + entry.name;
            struct stat info{};
            if (entry.name.size() != nameLength || !entry.name.starts_with(prefix) ||
                ::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
                continue;
            if (const auto lock = FileLock::tryLockFolder(path))
                removeTree(path);
        }
    } catch (const std::exception&) {
        // What cannot be removed now is tried again the next time.
    }
}

} // namespace

PrivateFolder::PrivateFolder() : PrivateFolder(temporaryFolder()) {}

PrivateFolder::PrivateFolder(const std::string& within) {
    sweep(within);
    path_ = within + "/" + newName();
    const std::string unfinished = path_ + ".new";
    if (::mkdir(unfinished.c_str(), S_IRWXU) != 0)
        throw IOError("mkdir", unfinished, errno);
    try {
        if (auto lock = FileLock::tryLockFolder(unfinished))
            lock_ = std::make_unique<FileLock>(std::move(*lock));
        IO::rename(unfinished, path_);
    } catch (...) {
        removeTree(unfinished);
        throw;
    }
}

PrivateFolder::~PrivateFolder() { removeTree(path_); }

} // namespace velmora
