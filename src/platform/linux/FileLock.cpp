#include "platform/FileLock.h"

#include "platform/IO.h"
#include "platform/linux/Descriptor.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>

namespace velmora {

struct FileLock::Held {
    Mutex mutex;
    Descriptor fd GUARDED_BY(mutex);
};

FileLock::FileLock(std::unique_ptr<Held> held) : held_(std::move(held)) {}
FileLock::FileLock(FileLock&&) noexcept = default;
FileLock& FileLock::operator=(FileLock&&) noexcept = default;
FileLock::~FileLock() = default;

namespace {

// Never deleted: another process could hold a lock on the deleted file while a third one makes a new file.
Descriptor openLockFile(const std::string& path) {
    if (const std::size_t slash = path.find_last_of('/'); slash != std::string::npos && slash > 0) {
        try {
            IO::mkdirs(path.substr(0, slash));
        } catch (const IOError&) {
            // The open below fails, and that is the answer.
        }
    }
    return Descriptor(retryInterrupted([&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); }));
}

} // namespace

std::optional<IOError> FileLock::problem(const std::string& path) {
    return openLockFile(path) ? std::nullopt : std::optional(IOError("lock", path, errno));
}

std::optional<FileLock> FileLock::tryLock(const std::string& path) {
    Descriptor fd = openLockFile(path);
    if (!fd || retryInterrupted([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); }) != 0)
        return std::nullopt;
    auto held = std::make_unique<Held>();
    MutexLock lock(held->mutex);
    held->fd = std::move(fd);
    return FileLock(std::move(held));
}

std::optional<FileLock> FileLock::lock(const std::string& path, double timeout, const IsCancelled& isCancelled) {
    using Clock = std::chrono::steady_clock;
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout));
    while (true) {
        if (auto lock = tryLock(path))
            return lock;
        if (isCancelled && isCancelled())
            throw Cancelled();
        if (Clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void FileLock::release() noexcept {
    if (held_ == nullptr)
        return;
    MutexLock lock(held_->mutex);
    held_->fd.reset();
}

} // namespace velmora
