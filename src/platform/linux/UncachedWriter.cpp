#include "platform/File.h"
#include "platform/linux/OpenFile.h"

#include <fcntl.h>

namespace velmora {

namespace {

int flagsOf(UncachedWriter::Open how) {
    switch (how) {
    case UncachedWriter::Open::createNew:
        return O_WRONLY | O_CREAT | O_EXCL;
    case UncachedWriter::Open::createOrTruncate:
        return O_WRONLY | O_CREAT | O_TRUNC;
    case UncachedWriter::Open::existing:
        break;
    }
    return O_WRONLY;
}

} // namespace

UncachedWriter::UncachedWriter(const std::string& path, Open how, CacheMode wanted)
    : path_(path), fd_(openRegular(path, flagsOf(how), 0644).release()),
      mode_(wanted == CacheMode::direct && switchToDirect(fd_) ? CacheMode::direct : CacheMode::dropBehind) {}

UncachedWriter::~UncachedWriter() {
    if (fd_ >= 0)
        ::close(fd_);
}

UncachedWriter::UncachedWriter(UncachedWriter&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)), mode_(other.mode_),
      startedFrom_(other.startedFrom_), startedTo_(other.startedTo_) {}

UncachedWriter& UncachedWriter::operator=(UncachedWriter&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(fd_, other.fd_);
    std::swap(mode_, other.mode_);
    std::swap(startedFrom_, other.startedFrom_);
    std::swap(startedTo_, other.startedTo_);
    return *this;
}

// KEEP_SIZE, because a length that runs ahead of the data would let a crash leave a file that looks complete.
void UncachedWriter::preallocate(std::int64_t bytes) noexcept {
    if (bytes > 0)
        retryInterrupted([&] { return ::fallocate(fd_, FALLOC_FL_KEEP_SIZE, 0, bytes); });
}

// O_DIRECT takes whole units only. An unaligned tail goes through the cache as one page. A padded unit that ftruncate
// cuts afterwards would be worse: the kernel reads that unit back from the disk and leaves it dirty in the cache all
// the same, and for a moment the file has a length that it must not have.
void UncachedWriter::writeAt(std::span<const std::byte> bytes, std::int64_t offset) {
    const std::size_t direct = mode_ == CacheMode::direct ? writeDirect(bytes, offset) : 0;
    if (direct == bytes.size())
        return;
    const bool tailOnly = mode_ == CacheMode::direct;
    if (tailOnly)
        switchToBuffered(fd_);
    writeBuffered(bytes.subspan(direct), offset + static_cast<std::int64_t>(direct));
    if (tailOnly && !switchToDirect(fd_))
        mode_ = CacheMode::dropBehind;
}

// Writes the whole units and returns their bytes. When the file system refuses O_DIRECT only at the write, the writer
// becomes a buffered one and the answer is what had been written until then.
std::size_t UncachedWriter::writeDirect(std::span<const std::byte> bytes, std::int64_t offset) {
    const std::size_t whole = bytes.size() / directAlignment * directAlignment;
    std::size_t done = 0;
    for (int stalled = 0; done < whole;) {
        const ssize_t n = retryInterrupted(
            [&] { return ::pwrite(fd_, bytes.data() + done, whole - done, offset + static_cast<off_t>(done)); });
        if (n < 0 && errno == EINVAL) {
            switchToBuffered(fd_);
            mode_ = CacheMode::dropBehind;
            return done;
        }
        if (n < 0)
            throwErrno("write", path_);
        // A disk that fills up may cut a write anywhere; the next one starts at the last whole unit and gets the
        // reason.
        const std::size_t reached = (done + static_cast<std::size_t>(n)) / directAlignment * directAlignment;
        if (n == 0 || (reached == done && ++stalled > 3))
            throw IOError("write", path_, EIO);
        done = reached;
    }
    return whole;
}

// Through the cache, but with little of it. This write is handed to the disk at once. The write before it has had the
// time of a whole block to get there: it is waited for, and its pages are dropped.
void UncachedWriter::writeBuffered(std::span<const std::byte> bytes, std::int64_t offset) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = retryInterrupted(
            [&] { return ::pwrite(fd_, bytes.data() + done, bytes.size() - done, offset + static_cast<off_t>(done)); });
        if (n < 0)
            throwErrno("write", path_);
        if (n == 0)
            throw IOError("write", path_, EIO);
        done += static_cast<std::size_t>(n);
    }
    const std::int64_t end = offset + static_cast<std::int64_t>(bytes.size());
    check(::sync_file_range(fd_, offset, end - offset, SYNC_FILE_RANGE_WRITE), "sync_file_range", path_);
    if (startedTo_ > startedFrom_)
        writeOutAndDrop(startedFrom_, startedTo_);
    startedFrom_ = offset;
    startedTo_ = end;
}

// A write-back error is told once to each open file, so whatever the wait returns is the verdict on these bytes.
void UncachedWriter::writeOutAndDrop(std::int64_t from, std::int64_t to) {
    constexpr unsigned all = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    check(retryInterrupted([&] { return ::sync_file_range(fd_, from, to - from, all); }), "sync_file_range", path_);
    ::posix_fadvise(fd_, from, to - from, POSIX_FADV_DONTNEED);
}

void UncachedWriter::pushToDisk() {
    if (mode_ == CacheMode::dropBehind)
        writeOutAndDrop(0, INT64_MAX);
    else if (startedTo_ > startedFrom_)
        writeOutAndDrop(startedFrom_, startedTo_);
    startedFrom_ = startedTo_ = 0;
}

void UncachedWriter::flush() {
    check(retryInterrupted([&] { return ::fsync(fd_); }), "fsync", path_);
    // Pages that were still dirty when their stretch was dropped are clean only now.
    ::posix_fadvise(fd_, 0, 0, POSIX_FADV_DONTNEED);
    startedFrom_ = startedTo_ = 0;
}

void UncachedWriter::setModified(Timestamp modified) {
    // The access time is given as it stands rather than with UTIME_OMIT: a FUSE daemon of the older protocol (exFAT
    // among them) answers "done" to a change of one time alone and does nothing.
    struct stat info{};
    check(::fstat(fd_, &info), "stat", path_);
    const struct timespec times[2] = {info.st_atim, {modified.seconds, modified.nanoseconds}};
    check(::futimens(fd_, times), "futimens", path_);
}

FileFacts UncachedWriter::facts() const {
    struct stat info{};
    check(::fstat(fd_, &info), "stat", path_);
    return factsOf(info);
}

// Never repeated: Linux has given the number away even when close reports a failure, EINTR among them.
void UncachedWriter::close() {
    const int fd = std::exchange(fd_, -1);
    if (fd >= 0)
        check(::close(fd), "close", path_);
}

} // namespace velmora
