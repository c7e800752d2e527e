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
    if (const std::size_t slash = path.find_last_of('/'); slash != std::string::npos && slash > 0)
        IO::mkdirs(path.substr(0, slash));
    Descriptor fd(retryInterrupted([&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); }));
    check(fd.get(), "open", path);
    return fd;
}

} // namespace

std::optional<IOError> FileLock::problem(const std::string& path) try {
    openLockFile(path);
    return std::nullopt;
} catch (const IOError& error) {
    return error;
}

std::optional<FileLock> FileLock::lockNow(Descriptor&& file) {
    if (retryInterrupted([&] { return ::flock(file.get(), LOCK_EX | LOCK_NB); }) != 0)
        return std::nullopt;
    auto held = std::make_unique<Held>();
    MutexLock lock(held->mutex);
    held->fd = std::move(file);
    return FileLock(std::move(held));
}

std::optional<FileLock> FileLock::tryLock(const std::string& path) try {
    return lockNow(openLockFile(path));
} catch (const IOError&) {
    return std::nullopt;
}

std::optional<FileLock> FileLock::tryLockFolder(const std::string& path) {
    Descriptor fd(retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    check(fd.get(), "open", path);
    auto lock = lockNow(std::move(fd));
    if (!lock && errno != EWOULDBLOCK)
        throwErrno("lock", path);
    return lock;
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
