#pragma once

#include "base/Mutex.h"
#include "blocks/BlockOutcome.h"
#include "records/ManifestRecord.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace velmora {

// Compares what is read back from one file on one destination with the block hashes that the copy recorded. It does not
// care who reads, in what order or in what pieces: the file is verified once every block has been seen and matched.
// Any thread may call anything; the lock is held while a block is hashed, never while a disk is read.
//
// A block goes from missing to partial (a piece came) to verified or mismatch (all of it was seen). Pieces never change
// a block that is verified or mismatch; a read of the whole block does. A block that matched in one read and not in
// another is kept in `unstableBlocks` for good. At most `maxPartials` blocks wait in memory for their missing pieces:
// one more drops the pieces of the block that was touched longest ago, and that block counts as not read.
class BlockVerifier {
public:
    enum class State : std::uint8_t { missing, partial, verified, mismatch };
    static constexpr std::size_t maxPartials = 8;

    explicit BlockVerifier(BlockManifest manifest);

    // Data that was read at `offset`. Ignored when it is empty or `offset` is negative; bytes behind the end of the
    // manifest count in `fedBytes` and are otherwise left alone.
    void feed(std::int64_t offset, std::span<const std::byte> bytes) EXCLUDES(lock_);
    // A whole block whose hash the caller has computed on the way.
    void feedHash(std::int64_t block, std::uint64_t hash) EXCLUDES(lock_);
    // The length that the file really has.
    void observeLength(std::int64_t length) EXCLUDES(lock_);
    bool lengthObserved() const EXCLUDES(lock_);

    // All that is not verified, as the longest possible ranges of whole blocks.
    std::vector<ByteRange> missingRanges() const EXCLUDES(lock_);
    BlockOutcome finish() const EXCLUDES(lock_); // as things stand; changes nothing
    // The hash that the disk gave for a block which does not match; absent for any other block.
    std::optional<std::uint64_t> diskHash(std::int64_t block) const EXCLUDES(lock_);
    // The same for all blocks that do not match.
    std::map<std::int64_t, std::uint64_t> wrongBlocks() const EXCLUDES(lock_);
    State state(std::int64_t block) const EXCLUDES(lock_);

    std::int64_t verifiedBytes() const EXCLUDES(lock_);
    std::int64_t fedBytes() const EXCLUDES(lock_);                    // everything offered, repeats included
    std::vector<std::int64_t> unstableBlocks() const EXCLUDES(lock_); // ascending
    const BlockManifest& manifest() const noexcept { return manifest_; }

private:
    struct Cover {
        std::int64_t start;
        std::int64_t end;
    };
    struct Partial {
        std::vector<std::byte> data;
        std::vector<Cover> covered; // sorted, merged
        std::int64_t lastUse = 0;
    };

    std::int64_t lengthOf(std::int64_t block) const noexcept;
    std::int64_t blockCount() const noexcept { return static_cast<std::int64_t>(manifest_.blocks.size()); }
    void whole(std::int64_t block, std::uint64_t hash) REQUIRES(lock_);
    void piece(std::int64_t block, std::int64_t at, std::span<const std::byte> bytes) REQUIRES(lock_);
    void makeRoom() REQUIRES(lock_);
    void setState(std::int64_t block, State state) REQUIRES(lock_);

    const BlockManifest manifest_;
    mutable Mutex lock_;
    std::vector<State> state_ GUARDED_BY(lock_);
    std::map<std::int64_t, std::uint64_t> diskHashes_ GUARDED_BY(lock_); // only blocks in state mismatch
    std::map<std::int64_t, Partial> partials_ GUARDED_BY(lock_);
    std::set<std::int64_t> unstable_ GUARDED_BY(lock_);
    std::int64_t tick_ GUARDED_BY(lock_) = 0;
    std::int64_t verified_ GUARDED_BY(lock_) = 0;
    std::int64_t fed_ GUARDED_BY(lock_) = 0;
    std::optional<std::int64_t> sizeOnDisk_ GUARDED_BY(lock_);
    bool observed_ GUARDED_BY(lock_) = false;
};

} // namespace velmora
