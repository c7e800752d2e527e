#pragma once

#include "base/Errors.h"
#include "base/SerialQueue.h"
#include "blocks/MultiHasher.h"
#include "engine/BufferPool.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace velmora {

// Computes the digests of what was read from the source, one file after another, on the queue "offload.hash". The
// reader hands over chunks; the hasher releases each of them.
class SourceHasher {
public:
    SourceHasher(std::int64_t blockSize, std::size_t files, Log log);

    // The reader's calls; they return at once.
    void begin();
    void update(Chunk& chunk);
    void finish(std::size_t file);
    void abort();
    // A file of one chunk, or an empty one (nullptr), from beginning to end.
    void whole(std::size_t file, Chunk* chunk);
    // Forgets the digests of the file: they do not hold.
    void forget(std::size_t file);
    // What an earlier run has recorded of a file that is not read again.
    void setKnown(std::size_t file, std::uint64_t hash, std::vector<std::uint64_t> blocks);

    // Waits until all that was queued before is hashed; not from the queue's own thread. After it the two functions
    // below may be asked for any file that was finished before the call.
    void wait() {
        queue_.sync([] {});
    }
    // The same for one file, which was finished before the call. Costs nothing where the hashing is ahead.
    void waitFor(std::size_t file) {
        if (passed_.load(std::memory_order_acquire) <= file)
            wait();
    }
    std::optional<std::uint64_t> hashOf(std::size_t file) const { return hashes_[file]; }
    const std::vector<std::uint64_t>& blocksOf(std::size_t file) const { return blocks_[file]; }
    std::vector<std::vector<std::uint64_t>> takeBlocks() { return std::move(blocks_); }

private:
    void hash(const Chunk& chunk);
    void store(std::size_t file);

    const std::int64_t blockSize_;
    // Touched on the queue only, but for finished files after `wait`.
    std::optional<MultiHasher> stream_;
    std::vector<std::optional<std::uint64_t>> hashes_;
    std::vector<std::vector<std::uint64_t>> blocks_;
    std::atomic<std::size_t> passed_{0}; // of the files below this number, all finished ones are hashed
    SerialQueue queue_;                  // last: its tasks use what stands above
};

} // namespace velmora
