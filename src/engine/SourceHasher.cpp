#include "engine/SourceHasher.h"

namespace velmora {

SourceHasher::SourceHasher(std::int64_t blockSize, std::size_t files, Log log)
    : blockSize_(blockSize), hashes_(files), blocks_(files), queue_("offload.hash", std::move(log)) {}

void SourceHasher::begin() {
    queue_.async([this] { stream_.emplace(HashKinds::xxh64, blockSize_, false); });
}

void SourceHasher::update(Chunk& chunk) {
    queue_.async([this, &chunk] {
        const Chunk::Hold hold(&chunk);
        hash(chunk);
    });
}

// A file whose hashing broke off has no digest, and no disk can have the right blocks of it.
void SourceHasher::hash(const Chunk& chunk) {
    if (!stream_)
        return;
    try {
        stream_->update(chunk.bytes().data(), static_cast<std::int64_t>(chunk.bytes().size()));
    } catch (...) {
        stream_.reset();
        throw;
    }
}

void SourceHasher::finish(std::size_t file) {
    queue_.async([this, file] { store(file); });
}

void SourceHasher::abort() {
    queue_.async([this] { stream_.reset(); });
}

void SourceHasher::forget(std::size_t file) {
    queue_.async([this, file] {
        hashes_[file].reset();
        blocks_[file].clear();
    });
}

void SourceHasher::whole(std::size_t file, Chunk* chunk) {
    queue_.async([this, file, chunk] {
        const Chunk::Hold hold(chunk);
        stream_.emplace(HashKinds::xxh64, blockSize_, false);
        if (chunk != nullptr)
            hash(*chunk);
        store(file);
    });
}

void SourceHasher::setKnown(std::size_t file, std::uint64_t hash, std::vector<std::uint64_t> blocks) {
    queue_.async([this, file, hash, known = std::move(blocks)]() mutable {
        hashes_[file] = hash;
        blocks_[file] = std::move(known);
    });
}

void SourceHasher::store(std::size_t file) {
    if (!stream_)
        return;
    auto [digests, blocks] = stream_->finish();
    stream_.reset();
    hashes_[file] = digests.xxh64;
    // A hundred thousand small files: no list keeps room that it does not need.
    blocks.shrink_to_fit();
    blocks_[file] = std::move(blocks);
    passed_.store(file + 1, std::memory_order_release);
}

} // namespace velmora
