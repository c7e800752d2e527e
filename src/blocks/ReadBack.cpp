#include "blocks/ReadBack.h"

#include "blocks/BlockPass.h"
#include "blocks/BlockVerifier.h"
#include "blocks/CacheProbe.h"
#include "blocks/MultiHasher.h"
#include "platform/IO.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace velmora {

namespace {

DestFileResult failed(std::string why) { return {FileState::failed, std::move(why)}; }

std::string sizeMismatch(std::int64_t onDisk, std::int64_t wanted) {
    return fmt::format("size mismatch: {} != {}", onDisk, wanted);
}

struct FirstPass {
    std::int64_t bytes = 0;
    FileHashes hashes;
    std::vector<std::uint64_t> blocks;
};

// Throws Cancelled.
FirstPass readWhole(UncachedReader& file, ReadAhead& reader, std::int64_t size, std::int64_t blockSize,
                    const ReadBack::Hooks& hooks) {
    FirstPass pass;
    MultiHasher hasher(HashKinds::xxh64, blockSize, true);
    pass.bytes = reader.read(file, size, [&](std::span<const std::byte> bytes) {
        if (hooks.isCancelled && hooks.isCancelled()) {
            throw Cancelled();
        }
        hasher.update(bytes.data(), static_cast<std::int64_t>(bytes.size()));
        if (hooks.progress) {
            hooks.progress(static_cast<std::int64_t>(bytes.size()));
        }
    });
    std::tie(pass.hashes, pass.blocks) = hasher.finish();
    return pass;
}

// The digest of the file is wrong. Finds the blocks that are to blame and reads them once more; where that read fails,
// the first answer stands. Leaves `outcome` alone when no block can be named.
void findBlocks(UncachedReader& file, std::span<std::byte> buffer, const std::string& path,
                const ReadBack::Expected& expected, const FirstPass& pass, const IsCancelled& isCancelled,
                ReadBack::Outcome& outcome) {
    auto manifest = BlockManifest::make(expected.size, expected.blockSize,
                                        std::vector<std::uint64_t>(expected.blocks.begin(), expected.blocks.end()));
    if (!expected.xxh64 || !manifest || std::ranges::equal(pass.blocks, expected.blocks)) {
        return;
    }
    BlockVerifier verifier(std::move(*manifest));
    verifier.observeLength(pass.bytes);
    for (std::size_t block = 0; block < pass.blocks.size(); ++block) {
        verifier.feedHash(static_cast<std::int64_t>(block), pass.blocks[block]);
    }
    try {
        AlignedBuffer own;
        const std::size_t needed = BlockPass::bufferBytes(expected.blockSize, expected.size, path);
        if (needed > buffer.size()) {
            own = AlignedBuffer(needed);
            buffer = own.span();
        }
        BlockPass::run(file, buffer, verifier, {{}, isCancelled, {}});
    } catch (const std::exception&) { // an error, no memory, or a cancel
    }
    outcome.unstable = verifier.unstableBlocks();
    std::erase_if(outcome.unstable, [&](std::int64_t block) { return verifier.diskHash(block).has_value(); });
    for (std::size_t block = 0; block < pass.blocks.size(); ++block) {
        const auto number = static_cast<std::int64_t>(block);
        if (const auto hash = verifier.diskHash(number)) {
            outcome.wrong.push_back({number, *hash, *hash != pass.blocks[block]});
        }
    }
}

} // namespace

ReadBack::ReadBack(std::span<std::byte> buffer) : buffer_(buffer), reader_(buffer) {}

ReadBack::Outcome ReadBack::verify(const std::string& cardPath, const std::string& relative, const Expected& expected,
                                   const Hooks& hooks) {
    Outcome outcome;
    try {
        const std::string path = cardPath + "/" + relative;
        UncachedReader file = UncachedReader::beneath(cardPath, relative);
        if (const std::int64_t onDisk = file.facts().size; onDisk != expected.size) {
            outcome.result = failed(sizeMismatch(onDisk, expected.size));
            return outcome;
        }
        outcome.throughCache = !CacheProbe::driveOut(path);
        const std::int64_t blockSize =
            expected.blockSize > 0 ? expected.blockSize : static_cast<std::int64_t>(buffer_.size());
        FirstPass pass = readWhole(file, reader_, expected.size, blockSize, hooks);
        if (pass.bytes != expected.size) {
            outcome.result = failed(sizeMismatch(pass.bytes, expected.size));
        } else if (expected.xxh64 && pass.hashes.xxh64 == expected.xxh64) {
            outcome.result = {FileState::verified, std::nullopt};
            outcome.xxh128 = std::move(pass.hashes.xxh128);
        } else {
            const std::string source = expected.xxh64 ? fmt::format("{:016x}", *expected.xxh64) : "-";
            outcome.result =
                failed(fmt::format("HASH MISMATCH: dest {:016x} != source {}", pass.hashes.xxh64.value_or(0), source));
            findBlocks(file, buffer_, path, expected, pass, hooks.isCancelled, outcome);
        }
    } catch (const Cancelled&) {
        outcome.result = {FileState::written, std::nullopt};
    } catch (const std::exception& error) { // a hook, or the memory: whatever it was, the file is not verified
        outcome.result = failed(fmt::format("verify: {}", error.what()));
    }
    return outcome;
}

} // namespace velmora
