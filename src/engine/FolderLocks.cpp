#include "engine/FolderLocks.h"

#include "base/Errors.h"
#include "base/Msg.h"
#include "blocks/Sha256.h"
#include "engine/Layout.h"
#include "platform/AppSupportFolder.h"

#include <map>
#include <utility>

namespace velmora {

namespace {

std::string lockFile(std::string_view kind, const std::string& path, const std::string& in) {
    return in + "/" + std::string(kind) + "-" + Sha256::hexOf(Layout::normalizedRoot(path)) + ".lock";
}

} // namespace

std::string Locks::folder() { return AppSupportFolder::path() + "/locks"; }

std::string Locks::cardFolder(const std::string& path, const std::string& in) { return lockFile("append", path, in); }

std::string Locks::day(const std::string& path, const std::string& in) { return lockFile("day", path, in); }

std::string Locks::history(const std::string& historyFolder, const std::string& in) {
    return lockFile("history", historyFolder, in);
}

FolderLocks FolderLocks::acquire(const std::vector<std::string>& cardPaths, const std::string& in) {
    // Every job takes its locks in the order of their names, so that no two can wait for one another in a ring.
    std::map<std::string, std::string> wanted;
    for (const std::string& path : cardPaths)
        wanted.emplace(Locks::cardFolder(path, in), path);
    std::vector<FileLock> held;
    for (const auto& [file, path] : wanted) {
        std::optional<FileLock> lock = FileLock::tryLock(file);
        if (const auto problem = lock ? std::nullopt : FileLock::problem(file))
            throw OffloadError::preflight(PreflightCode::other, "Cannot lock " + path + ": " + problem->what());
        if (!lock)
            throw OffloadError::preflight(PreflightCode::appendBusy, Msg::appendBusy(path));
        held.push_back(std::move(*lock));
    }
    return FolderLocks(std::move(held));
}

FolderLocks::FolderLocks(FolderLocks&& other) noexcept {
    MutexLock lock(other.mutex_);
    held_ = std::exchange(other.held_, {});
}

void FolderLocks::release() {
    std::vector<FileLock> released;
    MutexLock lock(mutex_);
    released.swap(held_);
}

} // namespace velmora
