#pragma once

#include "base/Mutex.h"
#include "platform/FileLock.h"

#include <string>
#include <vector>

namespace velmora {

// Where the lock files of this computer lie. Lock files stay on disk for good: the lock is the flock on them, so a
// process that dies frees its locks by itself. A folder's lock is named after the digest of its comparison form, so
// that every way of writing a path leads to one lock.
namespace Locks {

std::string folder(); // "<application support>/locks"
// Paths of the lock files. `in` is `folder()`, except in tests.
std::string cardFolder(const std::string& path, const std::string& in = folder());
std::string day(const std::string& path, const std::string& in = folder());
std::string history(const std::string& historyFolder, const std::string& in = folder());

} // namespace Locks

// Locks on all card folders of one job: all of them or none. Keeps jobs, of this process and of others, from working on
// one backup at once. Each folder has a lock file, and the folder itself is locked too, since another user has other
// lock files. Released by the destructor. `release` may be called from any thread.
class FolderLocks {
public:
    // Throws OffloadError when one of the folders is locked (`appendBusy`, naming the folder) or cannot be; none is
    // held then.
    static FolderLocks acquire(const std::vector<std::string>& cardPaths, const std::string& in = Locks::folder());
    // For a run that writes nothing into the folder. Where no lock files can be made, the lock on the folder is enough.
    static FolderLocks forReading(const std::string& cardPath, const std::string& in = Locks::folder());
    FolderLocks(FolderLocks&& other) noexcept;
    FolderLocks& operator=(FolderLocks&&) = delete;
    ~FolderLocks() { release(); }

    void release();

private:
    explicit FolderLocks(std::vector<FileLock> held) : held_(std::move(held)) {}
    Mutex mutex_;
    std::vector<FileLock> held_ GUARDED_BY(mutex_);
};

} // namespace velmora
