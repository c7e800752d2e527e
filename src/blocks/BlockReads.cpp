#include "blocks/BlockReads.h"

#include "blocks/BlockPass.h"
#include "blocks/BlockVerifier.h"
#include "blocks/CacheProbe.h"
#include "blocks/HashStreams.h"
#include "platform/IO.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <limits>

namespace velmora {

namespace {

constexpr std::int64_t page = 4096;

std::int64_t pageUp(std::int64_t bytes) { return (bytes + page - 1) / page * page; }

} // namespace

std::size_t BlockPass::bufferBytes(std::int64_t blockSize, std::int64_t fileSize, const std::string& path) {
    const std::int64_t block = std::max<std::int64_t>(1, std::min(blockSize, fileSize));
    if (block > BlockReads::maxBlock) {
        throw IOError("read", path, EFBIG);
    }
    return static_cast<std::size_t>(blockSize % page == 0 ? pageUp(block) : pageUp(block) + page);
}

std::span<const std::byte> BlockPass::readWindow(UncachedReader& file, std::span<std::byte> buffer, std::int64_t offset,
                                                 std::int64_t length) {
    const std::int64_t start = offset / page * page;
    const auto lead = static_cast<std::size_t>(offset - start);
    const auto wanted = static_cast<std::size_t>(length);
    const auto window = static_cast<std::size_t>(pageUp(offset - start + length));
    const std::size_t got = file.readAt(buffer.first(window), start);
    if (got <= lead) {
        return {};
    }
    return buffer.subspan(lead, std::min(wanted, got - lead));
}

bool BlockPass::run(UncachedReader& file, std::span<std::byte> buffer, BlockVerifier& verifier,
                    const BlockReads::Hooks& hooks) {
    const std::int64_t blockSize = verifier.manifest().blockSize;
    bool read = false;
    for (const ByteRange& range : verifier.missingRanges()) {
        const std::int64_t end = range.offset + range.length;
        for (std::int64_t at = range.offset; at < end; at += std::min(blockSize, end - at)) {
            if ((hooks.isCancelled && hooks.isCancelled()) || (hooks.beforeBlock && !hooks.beforeBlock())) {
                throw Cancelled();
            }
            const auto bytes = readWindow(file, buffer, at, std::min(blockSize, end - at));
            if (bytes.empty()) {
                break; // the file is shorter than it should be: the length tells
            }
            read = true;
            verifier.feed(at, bytes);
            if (hooks.progress) {
                hooks.progress(static_cast<std::int64_t>(bytes.size()));
            }
        }
    }
    return read;
}

namespace {

bool isSettled(const BlockVerifier& verifier) {
    return verifier.lengthObserved() && verifier.finish().kind == BlockOutcome::Kind::verified;
}

BlockReads::Completed completeFile(UncachedReader& file, const std::string& path, BlockVerifier& verifier,
                                   const BlockReads::Hooks& hooks) {
    const bool fromDisk = CacheProbe::driveOut(path);
    verifier.observeLength(file.facts().size);
    const BlockManifest& manifest = verifier.manifest();
    AlignedBuffer buffer(BlockPass::bufferBytes(manifest.blockSize, manifest.size, path));
    bool read = BlockPass::run(file, buffer.span(), verifier, hooks);
    if (verifier.finish().kind == BlockOutcome::Kind::mismatch) {
        // Read once more. A block that is wrong twice is wrong on the disk.
        read = BlockPass::run(file, buffer.span(), verifier, hooks) || read;
    }
    return {verifier.finish(), read && !fromDisk};
}

} // namespace

BlockReads::Completed BlockReads::complete(const std::string& path, BlockVerifier& verifier, const Hooks& hooks) {
    if (isSettled(verifier)) {
        return {BlockOutcome::verified(), false};
    }
    UncachedReader file(path);
    return completeFile(file, path, verifier, hooks);
}

BlockReads::Completed BlockReads::complete(const std::string& cardPath, const std::string& relative,
                                           BlockVerifier& verifier, const Hooks& hooks) {
    if (isSettled(verifier)) {
        return {BlockOutcome::verified(), false};
    }
    UncachedReader file = UncachedReader::beneath(cardPath, relative);
    return completeFile(file, cardPath + "/" + relative, verifier, hooks);
}

DestFileResult BlockReads::result(const BlockVerifier& verifier, const BlockOutcome& outcome) {
    switch (outcome.kind) {
    case BlockOutcome::Kind::verified:
        return {FileState::verified, std::nullopt};
    case BlockOutcome::Kind::incomplete:
        return {FileState::written, std::nullopt};
    case BlockOutcome::Kind::mismatch:
        return {FileState::failed, fmt::format("HASH MISMATCH: block {} dest {:016x} != source {:016x}", outcome.value,
                                               verifier.diskHash(outcome.value).value_or(0),
                                               verifier.manifest().blocks.at(static_cast<std::size_t>(outcome.value)))};
    case BlockOutcome::Kind::sizeDiffers:
        return {FileState::failed, fmt::format("size mismatch: {} != {}", outcome.value, verifier.manifest().size)};
    }
    return {};
}

std::optional<std::uint64_t> BlockReads::readCardBlock(const std::function<UncachedReader()>& open, std::int64_t block,
                                                       std::int64_t blockSize) {
    try {
        UncachedReader file = open();
        if (blockSize < 1) {
            return blockHash(nullptr, 0);
        }
        if (block < 0 || block > std::numeric_limits<std::int64_t>::max() / blockSize) {
            return std::nullopt;
        }
        const std::int64_t offset = block * blockSize;
        const std::int64_t length = std::clamp<std::int64_t>(file.facts().size - offset, 0, blockSize);
        AlignedBuffer buffer(BlockPass::bufferBytes(blockSize, length, "the card") + page);
        const auto bytes =
            length == 0 ? std::span<const std::byte>{} : BlockPass::readWindow(file, buffer.span(), offset, length);
        return blockHash(bytes.data(), bytes.size());
    } catch (const IOError&) {
        return std::nullopt;
    }
}

} // namespace velmora
