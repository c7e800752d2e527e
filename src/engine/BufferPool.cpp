#include "engine/BufferPool.h"

#include "base/Errors.h"

#include <cstdint>
#include <new>
#include <utility>

namespace velmora {

namespace {

constexpr std::size_t alignment = 4096;

std::size_t aligned(std::size_t bytes) { return (bytes + alignment - 1) / alignment * alignment; }

} // namespace

// `users` counts the chunks that are still out, and the pool itself while it carves slices from the buffer.
struct Chunk::Buffer {
    Buffer(BufferPool& owner, std::size_t bytes, std::size_t slices)
        : pool(owner), memory(bytes), chunks(std::make_unique<Chunk[]>(slices)) {}

    void leave() noexcept {
        if (users.fetch_sub(1, std::memory_order_acq_rel) == 1)
            pool.giveBack(*this);
    }

    BufferPool& pool;
    AlignedBuffer memory;
    std::unique_ptr<Chunk[]> chunks;
    std::size_t usedBytes = 0;
    std::size_t usedChunks = 0;
    std::atomic<int> users{0};
};

void Chunk::release() noexcept {
    if (pending_.fetch_sub(1, std::memory_order_acq_rel) == 1)
        buffer_->leave();
}

BufferPool::BufferPool(std::size_t bufferBytes, std::size_t count) : bufferBytes_(bufferBytes) {
    try {
        if (count > SIZE_MAX / bufferBytes) // no machine has that much
            throw std::bad_alloc();
        all_.reserve(count);
        free_.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            all_.push_back(std::make_unique<Buffer>(*this, bufferBytes, slicesPerBuffer));
            free_.push_back(all_.back().get());
        }
    } catch (const std::bad_alloc&) {
        throw OffloadError::failed("Out of memory allocating " + std::to_string(bufferBytes) + " bytes");
    }
}

BufferPool::~BufferPool() = default;

Chunk& BufferPool::take() {
    closeOpenBuffer();
    Buffer& buffer = takeBuffer();
    return carve(buffer, bufferBytes_);
}

Chunk& BufferPool::takeSlice(std::size_t bytes) {
    const std::size_t room = aligned(bytes);
    if (open_ == nullptr || open_->usedChunks == slicesPerBuffer || bufferBytes_ - open_->usedBytes < room) {
        closeOpenBuffer();
        open_ = &takeBuffer();
        open_->users.store(1, std::memory_order_relaxed);
    }
    return carve(*open_, room);
}

Chunk& BufferPool::carve(Buffer& buffer, std::size_t bytes) {
    Chunk& chunk = buffer.chunks[buffer.usedChunks++];
    chunk.buffer_ = &buffer;
    chunk.memory_ = buffer.memory.span().subspan(buffer.usedBytes, bytes);
    buffer.usedBytes += bytes;
    chunk.set(0, 0);
    chunk.pending_.store(1, std::memory_order_relaxed);
    buffer.users.fetch_add(1, std::memory_order_relaxed);
    return chunk;
}

void BufferPool::closeOpenBuffer() {
    if (open_ != nullptr)
        std::exchange(open_, nullptr)->leave();
}

BufferPool::Buffer& BufferPool::takeBuffer() {
    const MutexLock lock(mutex_);
    while (free_.empty())
        available_.wait(mutex_);
    // The buffer that came back last is the one that the processor's cache still knows.
    Buffer& buffer = *free_.back();
    free_.pop_back();
    buffer.usedBytes = buffer.usedChunks = 0;
    buffer.users.store(0, std::memory_order_relaxed);
    return buffer;
}

void BufferPool::giveBack(Buffer& buffer) {
    {
        const MutexLock lock(mutex_);
        free_.push_back(&buffer);
    }
    available_.notifyOne();
}

} // namespace velmora
