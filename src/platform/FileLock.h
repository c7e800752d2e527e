#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"

#include <memory>
#include <optional>
#include <string>

namespace velmora {

class Descriptor;

// An exclusive lock between threads, jobs and processes, tied to a file or a folder that stays where it is. The lock is
// the open file, not the name: a process that dies lets go of it, and two locks in one process exclude each other too.
class FileLock {
public:
    // At once, or nothing: somebody else holds it, or the file cannot be made. Missing parent folders are created.
    static std::optional<FileLock> tryLock(const std::string& path);
    // The same on a folder that stands: every process on this computer that asks for it meets the lock, whoever runs it
    // and whatever it calls the folder. Throws IOError when the folder cannot be opened or its disk knows no locks.
    static std::optional<FileLock> tryLockFolder(const std::string& path);
    // Why the lock file cannot be made or opened by anybody. None when it can, held or not.
    static std::optional<IOError> problem(const std::string& path);
    // Tries again and again for `timeout` seconds. Throws Cancelled when it is asked to stop meanwhile.
    static std::optional<FileLock> lock(const std::string& path, double timeout, const IsCancelled& isCancelled = {});

    FileLock(FileLock&&) noexcept;
    FileLock& operator=(FileLock&&) noexcept;
    ~FileLock(); // releases

    // From any thread; a second call does nothing.
    void release() noexcept;

private:
    struct Held;
    static std::optional<FileLock> lockNow(Descriptor&& file);
    explicit FileLock(std::unique_ptr<Held> held);
    std::unique_ptr<Held> held_;
};

} // namespace velmora
