#include "engine/FolderLocks.h"

#include "base/Errors.h"
#include "base/Msg.h"
#include "blocks/Sha256.h"
#include "engine/Layout.h"
#include "platform/AppSupportFolder.h"
#include "platform/IO.h"

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

namespace {

OffloadError busy(const std::string& path) {
    return OffloadError::preflight(PreflightCode::appendBusy, Msg::appendBusy(path));
}

OffloadError cannotLock(const std::string& path, const IOError& error) {
    return OffloadError::preflight(PreflightCode::other, "Cannot lock " + path + ": " + error.what());
}

// Every job takes its locks in the order of their names, so that no two can wait for one another in a ring.
void lockFiles(const std::vector<std::string>& cardPaths, const std::string& in, std::vector<FileLock>& held) {
    std::map<std::string, std::string> wanted;
    for (const std::string& path : cardPaths)
        wanted.emplace(Locks::cardFolder(path, in), path);
    for (const auto& [file, path] : wanted) {
        std::optional<FileLock> lock = FileLock::tryLock(file);
        if (const auto problem = lock ? std::nullopt : FileLock::problem(file))
            throw cannotLock(path, *problem);
        if (!lock)
            throw busy(path);
        held.push_back(std::move(*lock));
    }
}

void lockFolders(const std::vector<std::string>& cardPaths, std::vector<FileLock>& held) {
    std::map<std::pair<std::uint64_t, std::uint64_t>, std::string> wanted; // a folder given twice is locked once
    for (const std::string& path : cardPaths) {
        if (IO::isGone(path))
            continue; // the caller that needs it will say that it is missing
        try {
            const FileFacts facts = IO::stat(path);
            if (facts.isFolder)
                wanted.emplace(std::pair(facts.device, facts.inode), path);
        } catch (const IOError& error) {
            throw cannotLock(path, error);
        }
    }
    for (const auto& [folder, path] : wanted) {
        try {
            std::optional<FileLock> lock = FileLock::tryLockFolder(path);
            if (!lock)
                throw busy(path);
            held.push_back(std::move(*lock));
        } catch (const IOError& error) {
            throw cannotLock(path, error);
        }
    }
}

} // namespace

FolderLocks FolderLocks::acquire(const std::vector<std::string>& cardPaths, const std::string& in) {
    std::vector<FileLock> held;
    lockFiles(cardPaths, in, held);
    lockFolders(cardPaths, held);
    return FolderLocks(std::move(held));
}

FolderLocks FolderLocks::forReading(const std::string& cardPath, const std::string& in) {
    if (!FileLock::problem(Locks::cardFolder(cardPath, in)))
        return acquire({cardPath}, in);
    std::vector<FileLock> held;
    lockFolders({cardPath}, held);
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
