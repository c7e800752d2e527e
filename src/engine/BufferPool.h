#pragma once

#include "base/Mutex.h"
#include "platform/File.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace velmora {

class BufferPool;

// Data of one file on its way to its consumers: a whole buffer of the pool, or a slice of one that it shares with the
// small files before and after it. All consumers read the same memory; the last one to release gives it back.
class Chunk {
public:
    // Where the reader puts the data; a multiple of 4096 long.
    std::span<std::byte> memory() noexcept { return memory_; }
    // What the consumers see. The memory behind it is zero up to the next multiple of 4096.
    std::span<const std::byte> bytes() const noexcept { return memory_.first(length_); }
    std::int64_t offset() const noexcept { return offset_; } // in the file

    // Both are for the reader: `set` says what it has read, `share` how many consumers get it.
    void set(std::int64_t offset, std::size_t length) noexcept {
        offset_ = offset;
        length_ = length;
    }
    void share(int consumers) noexcept { pending_.store(consumers, std::memory_order_release); }
    // One consumer needs the chunk no longer. Any thread may call this.
    void release() noexcept;
    // Gives a consumer's chunk back on every way out: one that never came back would stop the reader for good.
    class Hold {
    public:
        explicit Hold(Chunk* chunk) noexcept : chunk_(chunk) {}
        ~Hold() {
            if (chunk_ != nullptr)
                chunk_->release();
        }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        Chunk* const chunk_;
    };

private:
    friend class BufferPool;
    struct Buffer;

    Buffer* buffer_ = nullptr;
    std::span<std::byte> memory_;
    std::int64_t offset_ = 0;
    std::size_t length_ = 0;
    std::atomic<int> pending_{0};
};

// Page-aligned buffers, all allocated at the start; nothing is allocated while data moves. `take` blocks while all are
// in use. Nothing else slows the reader down: a slow disk makes it wait instead of making memory grow.
//
// Small files share a buffer: if each had one of its own, the reader could be only sixteen files ahead of the disks;
// this way it can be a thousand ahead. One thread takes, any thread releases.
class BufferPool {
public:
    BufferPool(std::size_t bufferBytes, std::size_t count);
    ~BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    std::size_t bufferBytes() const noexcept { return bufferBytes_; }
    // Files up to this size share buffers.
    std::size_t sliceLimit() const noexcept { return bufferBytes_ / 8; }

    // A whole buffer; waits for one. The chunk belongs to the caller until it is shared or released.
    Chunk& take();
    // Room for `bytes` (at most sliceLimit, rounded up to a multiple of 4096).
    Chunk& takeSlice(std::size_t bytes);

private:
    friend class Chunk;
    using Buffer = Chunk::Buffer;
    static constexpr std::size_t slicesPerBuffer = 256;

    Buffer& takeBuffer() EXCLUDES(mutex_);
    void giveBack(Buffer& buffer) EXCLUDES(mutex_);
    void closeOpenBuffer();
    Chunk& carve(Buffer& buffer, std::size_t bytes);

    const std::size_t bufferBytes_;
    std::vector<std::unique_ptr<Buffer>> all_;
    Buffer* open_ = nullptr; // is being filled with slices; used by the thread that takes

    Mutex mutex_;
    Condition available_;
    std::vector<Buffer*> free_ GUARDED_BY(mutex_);
};

} // namespace velmora
