#include "blocks/BlockVerifier.h"

#include "blocks/BlockReads.h"
#include "blocks/HashStreams.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace velmora {

BlockVerifier::BlockVerifier(BlockManifest manifest) : manifest_(std::move(manifest)) {
    // Everything below divides by the block size and indexes by block number.
    if (manifest_.blockSize < 1 || manifest_.size < 0 ||
        blockCount() != BlockManifest::countFor(manifest_.size, manifest_.blockSize)) {
        throw std::invalid_argument("BlockVerifier: the blocks do not cover the file");
    }
    state_.assign(manifest_.blocks.size(), State::missing);
}

std::int64_t BlockVerifier::lengthOf(std::int64_t block) const noexcept {
    return BlockManifest::length(block, manifest_.size, manifest_.blockSize);
}

void BlockVerifier::feed(std::int64_t offset, std::span<const std::byte> bytes) {
    if (bytes.empty() || offset < 0) {
        return;
    }
    const MutexLock hold(lock_);
    const auto length = static_cast<std::int64_t>(bytes.size());
    fed_ += length;
    if (offset >= manifest_.size) {
        return;
    }
    const std::int64_t end = length < manifest_.size - offset ? offset + length : manifest_.size;
    for (std::int64_t at = offset; at < end;) {
        const std::int64_t block = at / manifest_.blockSize;
        const std::int64_t start = block * manifest_.blockSize;
        const std::int64_t stop = std::min(start + lengthOf(block), end);
        const auto stretch = bytes.subspan(static_cast<std::size_t>(at - offset), static_cast<std::size_t>(stop - at));
        if (at == start && stop - start == lengthOf(block)) {
            whole(block, blockHash(stretch.data(), stretch.size()));
        } else {
            piece(block, at - start, stretch);
        }
        at = stop;
    }
}

void BlockVerifier::feedHash(std::int64_t block, std::uint64_t hash) {
    const MutexLock hold(lock_);
    if (block < 0 || block >= blockCount()) {
        return;
    }
    fed_ += lengthOf(block);
    whole(block, hash);
}

void BlockVerifier::observeLength(std::int64_t length) {
    const MutexLock hold(lock_);
    observed_ = true;
    if (length != manifest_.size) {
        sizeOnDisk_ = length; // stays, even when a later look finds the right length
    }
}

bool BlockVerifier::lengthObserved() const {
    const MutexLock hold(lock_);
    return observed_;
}

void BlockVerifier::whole(std::int64_t block, std::uint64_t hash) {
    partials_.erase(block);
    const bool right = hash == manifest_.blocks[static_cast<std::size_t>(block)];
    const State before = state_[static_cast<std::size_t>(block)];
    if ((before == State::mismatch && right) || (before == State::verified && !right)) {
        unstable_.insert(block); // two answers from one disk
    }
    if (right) {
        diskHashes_.erase(block);
        setState(block, State::verified);
    } else {
        diskHashes_[block] = hash; // the latest wrong answer is the one that is told
        setState(block, State::mismatch);
    }
}

void BlockVerifier::piece(std::int64_t block, std::int64_t at, std::span<const std::byte> bytes) {
    const State now = state_[static_cast<std::size_t>(block)];
    const std::int64_t length = lengthOf(block);
    // A block that is too large is never read; the file stays incomplete.
    if (now == State::verified || now == State::mismatch || length > BlockReads::maxBlock) {
        return;
    }
    auto found = partials_.find(block);
    if (found == partials_.end()) {
        makeRoom();
        found = partials_.emplace(block, Partial{}).first;
        found->second.data.resize(static_cast<std::size_t>(length));
        setState(block, State::partial);
    }
    Partial& partial = found->second;
    partial.lastUse = ++tick_;
    std::memcpy(partial.data.data() + at, bytes.data(), bytes.size());

    std::vector<Cover>& covered = partial.covered;
    covered.push_back({at, at + static_cast<std::int64_t>(bytes.size())});
    std::sort(covered.begin(), covered.end(), [](const Cover& a, const Cover& b) { return a.start < b.start; });
    std::size_t last = 0;
    for (std::size_t i = 1; i < covered.size(); ++i) {
        if (covered[last].end >= covered[i].start) {
            covered[last].end = std::max(covered[last].end, covered[i].end);
        } else {
            covered[++last] = covered[i];
        }
    }
    covered.resize(last + 1);
    if (covered.front().start == 0 && covered.front().end == length) {
        whole(block, blockHash(partial.data.data(), partial.data.size()));
    }
}

void BlockVerifier::makeRoom() {
    if (partials_.size() < maxPartials) {
        return;
    }
    const auto oldest = std::min_element(partials_.begin(), partials_.end(), [](const auto& a, const auto& b) {
        return a.second.lastUse < b.second.lastUse;
    });
    setState(oldest->first, State::missing);
    partials_.erase(oldest);
}

void BlockVerifier::setState(std::int64_t block, State state) {
    State& now = state_[static_cast<std::size_t>(block)];
    if (now == state) {
        return;
    }
    if (now == State::verified) {
        verified_ -= lengthOf(block);
    }
    if (state == State::verified) {
        verified_ += lengthOf(block);
    }
    now = state;
}

std::vector<ByteRange> BlockVerifier::missingRanges() const {
    const MutexLock hold(lock_);
    std::vector<ByteRange> ranges;
    for (std::int64_t block = 0; block < blockCount(); ++block) {
        if (state_[static_cast<std::size_t>(block)] == State::verified) {
            continue;
        }
        const std::int64_t start = block * manifest_.blockSize;
        if (!ranges.empty() && ranges.back().offset + ranges.back().length == start) {
            ranges.back().length += lengthOf(block);
        } else {
            ranges.push_back({start, lengthOf(block)});
        }
    }
    return ranges;
}

BlockOutcome BlockVerifier::finish() const {
    const MutexLock hold(lock_);
    if (sizeOnDisk_) {
        return BlockOutcome::sizeDiffers(*sizeOnDisk_);
    }
    if (const auto wrong = std::find(state_.begin(), state_.end(), State::mismatch); wrong != state_.end()) {
        return BlockOutcome::mismatch(wrong - state_.begin());
    }
    const bool all = std::all_of(state_.begin(), state_.end(), [](State s) { return s == State::verified; });
    return all ? BlockOutcome::verified() : BlockOutcome::incomplete();
}

std::optional<std::uint64_t> BlockVerifier::diskHash(std::int64_t block) const {
    const MutexLock hold(lock_);
    const auto found = diskHashes_.find(block);
    return found == diskHashes_.end() ? std::nullopt : std::optional(found->second);
}

std::map<std::int64_t, std::uint64_t> BlockVerifier::wrongBlocks() const {
    const MutexLock hold(lock_);
    return diskHashes_;
}

BlockVerifier::State BlockVerifier::state(std::int64_t block) const {
    const MutexLock hold(lock_);
    return state_.at(static_cast<std::size_t>(block));
}

std::int64_t BlockVerifier::verifiedBytes() const {
    const MutexLock hold(lock_);
    return verified_;
}

std::int64_t BlockVerifier::fedBytes() const {
    const MutexLock hold(lock_);
    return fed_;
}

std::vector<std::int64_t> BlockVerifier::unstableBlocks() const {
    const MutexLock hold(lock_);
    return {unstable_.begin(), unstable_.end()};
}

} // namespace velmora
