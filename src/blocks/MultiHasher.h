#pragma once

#include "blocks/HashStreams.h"
#include "records/HashKinds.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace velmora {

// Computes all digests of one file in one pass: the digests of the whole file, and the hash of every block of
// `blockSize` bytes (the last one may be short). Bytes may arrive in pieces of any length. Nothing is copied: a block
// that arrives in pieces runs through a stream, which gives the same hash as hashing it in place.
// Not thread-safe.
class MultiHasher {
public:
    // `blockSize` is above 0. xxh64 is always computed; `kinds` may add md5, and `xxh128` adds the 128-bit digest.
    MultiHasher(HashKinds kinds, std::int64_t blockSize, bool xxh128);

    void update(const std::byte* bytes, std::int64_t count); // a count below 1 does nothing
    // The digests, and exactly ceil(bytes / blockSize) block hashes. Called once.
    std::pair<FileHashes, std::vector<std::uint64_t>> finish();

private:
    void closeBlock();

    std::int64_t blockSize_;
    XXH64Stream x64_;
    std::optional<XXH128Stream> x128_;
    std::optional<CryptoStream> md5_;
    XXH3Stream block_;
    std::int64_t inBlock_ = 0; // bytes of the current block that `block_` has seen
    std::vector<std::uint64_t> blocks_;
};

} // namespace velmora
