#pragma once

#include "base/Timestamp.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace velmora {

class HeldFolder;

// Page-aligned memory from the kernel, zero-filled, backed by huge pages where it gives them. Move-only.
class AlignedBuffer {
public:
    AlignedBuffer() = default;
    explicit AlignedBuffer(std::size_t bytes); // throws std::bad_alloc
    ~AlignedBuffer();
    AlignedBuffer(AlignedBuffer&&) noexcept;
    AlignedBuffer& operator=(AlignedBuffer&&) noexcept;

    std::byte* data() noexcept { return data_; }
    const std::byte* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    std::span<std::byte> span() noexcept { return {data_, size_}; }

private:
    std::byte* data_ = nullptr;
    std::size_t size_ = 0;
};

// How a file's bytes travel.
enum class CacheMode {
    direct,     // O_DIRECT: past the page cache
    dropBehind, // through the cache, written out and dropped behind the position
};

// What stat says of an open file or a path.
struct FileFacts {
    std::int64_t size = 0;
    Timestamp modified;
    Timestamp changed; // by the system, at any change of the file; nobody can set it
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    bool isFile = false;
    bool isFolder = false;
    bool isLink = false;
};

// A file read past the page cache; any number of threads may read. Every failure is an IOError ("open", "stat",
// "read").
class UncachedReader {
public:
    // Follows no symbolic link in the last component; refuses anything but a regular file (EINVAL).
    explicit UncachedReader(const std::string& path);
    // Joins `relative` to `root` and follows no link anywhere below `root` (openat2, RESOLVE_BENEATH and
    // RESOLVE_NO_SYMLINKS). A relative path that is empty, absolute or holds "." or ".." is refused with EXDEV.
    static UncachedReader beneath(const std::string& root, const std::string& relative);
    // The same below a folder that is held, whatever its path leads to by now.
    static UncachedReader beneath(const HeldFolder& root, const std::string& relative);
    ~UncachedReader();
    UncachedReader(UncachedReader&&) noexcept;
    UncachedReader& operator=(UncachedReader&&) = delete;

    FileFacts facts() const;
    CacheMode mode() const noexcept { return mode_; }
    int descriptor() const noexcept { return fd_; }
    // Fills `buffer` from `offset` until it is full or the file ends; returns the bytes read, 0 at the end of the
    // file. `buffer` is page-aligned and a multiple of 4096 long, `offset` a multiple of 4096. Bytes of the buffer
    // behind the returned count are zero up to the next multiple of 4096. EINTR is repeated.
    std::size_t readAt(std::span<std::byte> buffer, std::int64_t offset);

private:
    UncachedReader(std::string path, int fd);
    std::size_t readOnce(std::byte* to, std::size_t bytes, std::int64_t offset);
    void becomeBuffered();

    std::string path_;
    int fd_ = -1;
    std::atomic<CacheMode> mode_{CacheMode::direct};
};

// A file written past the page cache. Not thread-safe. Every failure is an IOError ("open", "write", "fsync", …).
class UncachedWriter {
public:
    enum class Open { createNew, createOrTruncate, existing }; // createNew refuses a name that is taken (EEXIST)
    // `wanted` direct falls back to dropBehind where the file system refuses O_DIRECT; `mode()` tells. New files have
    // mode 0644. No symbolic link is followed in the last component.
    UncachedWriter(const std::string& path, Open how, CacheMode wanted);
    ~UncachedWriter(); // closes without looking; call close() to learn of errors
    UncachedWriter(UncachedWriter&&) noexcept;
    UncachedWriter& operator=(UncachedWriter&&) noexcept;

    CacheMode mode() const noexcept { return mode_; }
    int descriptor() const noexcept { return fd_; }
    // A hint; a refusal is ignored. The file's length does not change.
    void preallocate(std::int64_t bytes) noexcept;
    // Writes `bytes` at `offset` (a multiple of 4096). The memory is page-aligned. Only the last write of a file may
    // have a length that is no multiple of 4096.
    void writeAt(std::span<const std::byte> bytes, std::int64_t offset);
    // Pushes the data to the device without flushing the device's own cache, and drops what of it went through the page
    // cache: all of it in dropBehind mode, an unaligned tail in direct mode.
    void pushToDisk();
    // fsync: data, length and times are on the medium. A failure is final: it must never be retried into a success.
    void flush();
    void setModified(Timestamp modified); // access time untouched
    FileFacts facts() const;
    void close(); // throws IOError("close", …)

private:
    std::size_t writeDirect(std::span<const std::byte> bytes, std::int64_t offset);
    void writeBuffered(std::span<const std::byte> bytes, std::int64_t offset);
    void writeOutAndDrop(std::int64_t from, std::int64_t to);

    std::string path_;
    int fd_ = -1;
    CacheMode mode_ = CacheMode::direct;
    // The bytes between these two were handed from the cache to the disk, but not waited for.
    std::int64_t startedFrom_ = 0;
    std::int64_t startedTo_ = 0;
};

} // namespace velmora
