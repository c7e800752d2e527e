#include "blocks/MultiHasher.h"

#include <algorithm>
#include <stdexcept>

namespace velmora {

namespace {

// Every digest takes a slice while it is still in the processor's cache from the one before: the bytes of a block cross
// the memory bus once, whatever is computed of them.
constexpr std::int64_t slice = 256 * 1024;

} // namespace

MultiHasher::MultiHasher(HashKinds kinds, std::int64_t blockSize, bool xxh128) : blockSize_(blockSize) {
    if (blockSize < 1) {
        throw std::invalid_argument("MultiHasher: the block size is not above 0");
    }
    if (xxh128) {
        x128_.emplace();
    }
    if (kinds.hasMd5()) {
        md5_.emplace(CryptoStream::Kind::md5);
    }
}

void MultiHasher::update(const std::byte* bytes, std::int64_t count) {
    while (count > 0) {
        const std::int64_t part = std::min({count, slice, blockSize_ - inBlock_});
        const auto length = static_cast<std::size_t>(part);
        x64_.update(bytes, length);
        if (x128_) {
            x128_->update(bytes, length);
        }
        if (md5_) {
            md5_->update(bytes, length);
        }
        block_.update(bytes, length);
        inBlock_ += part;
        if (inBlock_ == blockSize_) {
            closeBlock();
        }
        bytes += part;
        count -= part;
    }
}

void MultiHasher::closeBlock() {
    blocks_.push_back(block_.digest());
    block_.reset();
    inBlock_ = 0;
}

std::pair<FileHashes, std::vector<std::uint64_t>> MultiHasher::finish() {
    if (inBlock_ > 0) {
        closeBlock();
    }
    FileHashes hashes;
    hashes.xxh64 = x64_.digest();
    if (x128_) {
        hashes.xxh128 = x128_->hex();
    }
    if (md5_) {
        const std::vector<std::uint8_t> digest = md5_->finish();
        std::copy(digest.begin(), digest.end(), hashes.md5.emplace().begin());
    }
    return {std::move(hashes), std::move(blocks_)};
}

} // namespace velmora
