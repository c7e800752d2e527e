#include "blocks/ManifestFile.h"
#include "engine/DestWriter.h"
#include "engine/OffloadOptions.h"
#include "engine/SourceHasher.h"

#include <fmt/format.h>

// How a finished file gets its line in the manifest: at once when it was flushed alone, otherwise behind the device
// flush that covers it.
namespace velmora {

namespace {

constexpr std::size_t linesAtOnce = 4096; // bounds the memory of an append, not its cost: one flush each

} // namespace

void DestWriter::record(std::size_t file) {
    if (!flushedAlone(file)) {
        wait(file, false);
        return;
    }
    set_.hasher->wait();
    if (auto error = mismatch(file, blockHashes_)) {
        fail(file, std::move(*error));
        return;
    }
    const ManifestRecord record = line(file);
    try {
        ManifestFile::append(set_.cardPath, std::span(&record, 1));
    } catch (const IOError& error) {
        say(fmt::format("{} not recorded: {}", record.path, error.what()));
    }
}

void DestWriter::wait(std::size_t file, bool adopted) {
    const std::size_t blocks = adopted ? 0 : blockHashes_.size();
    waiting_.push_back({static_cast<std::uint32_t>(file), static_cast<std::uint32_t>(blocks), adopted});
    if (adopted)
        return;
    waitingBlocks_.insert(waitingBlocks_.end(), blockHashes_.begin(), blockHashes_.end());
    waitingSize_ += fileAt(file).size;
    if (waiting_.size() >= waitingFiles || waitingSize_ >= waitingBytes)
        flushWaiting();
}

bool DestWriter::flushWaiting() {
    try {
        flush_.flush(!set_.clashes->flushFile);
    } catch (const IOError& error) {
        say(fmt::format("{}: the flush failed: {}", set_.cardPath, error.what()));
        // What an earlier run has recorded was durable before this flush.
        for (const Waiting& waiting : waiting_)
            if (!waiting.adopted)
                fail(waiting.file, error.what());
        waiting_.clear();
        waitingBlocks_.clear();
        waitingSize_ = 0;
        return false;
    }
    set_.hasher->wait();
    appendWaiting();
    return true;
}

// Lines that cannot be appended stay for the next flush: the files are as good as ever, only nobody would know.
void DestWriter::appendWaiting() {
    std::vector<ManifestRecord> lines;
    std::size_t done = 0;
    std::size_t block = 0;
    std::size_t doneBlocks = 0;
    try {
        for (std::size_t at = 0; at < waiting_.size(); ++at) {
            const Waiting& waiting = waiting_[at];
            const std::span written(waitingBlocks_.data() + block, waiting.blocks);
            block += waiting.blocks;
            auto error = waiting.adopted ? std::nullopt : mismatch(waiting.file, written);
            if (error)
                fail(waiting.file, std::move(*error));
            else if (hasLine(waiting.file))
                lines.push_back(line(waiting.file));
            if (lines.size() >= linesAtOnce || at + 1 == waiting_.size()) {
                ManifestFile::append(set_.cardPath, lines);
                lines.clear();
                done = at + 1;
                doneBlocks = block;
            }
        }
    } catch (const IOError& error) {
        say(fmt::format("{}: finished files not recorded: {}", set_.cardPath, error.what()));
    }
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(done));
    waitingBlocks_.erase(waitingBlocks_.begin(), waitingBlocks_.begin() + static_cast<std::ptrdiff_t>(doneBlocks));
    waitingSize_ = 0;
}

// What was written is what was read, or the memory between the two has failed.
std::optional<std::string> DestWriter::mismatch(std::size_t file, std::span<const std::uint64_t> blocks) const {
    const std::vector<std::uint64_t>& source = set_.hasher->blocksOf(file);
    for (std::size_t b = 0; b < std::max(blocks.size(), source.size()); ++b) {
        const std::uint64_t dest = b < blocks.size() ? blocks[b] : 0;
        const std::uint64_t expected = b < source.size() ? source[b] : 0;
        if (dest != expected)
            return fmt::format("HASH MISMATCH: block {} dest {:016x} != source {:016x}", b, dest, expected);
    }
    return std::nullopt;
}

bool DestWriter::hasLine(std::size_t file) const {
    const auto blocks = static_cast<std::int64_t>(set_.hasher->blocksOf(file).size());
    return set_.hasher->hashOf(file) && blocks == BlockManifest::countFor(fileAt(file).size, set_.options->chunkSize);
}

ManifestRecord DestWriter::line(std::size_t file) const {
    const SourceFile& source = fileAt(file);
    FileHashes digests;
    digests.xxh64 = set_.hasher->hashOf(file);
    ManifestRecord record;
    record.gen = set_.generation;
    record.path = source.relPath;
    record.size = source.size;
    record.modified = source.mtime.floorToSecond();
    record.xxh64 = digests.xxh64Hex();
    record.blockSize = set_.options->chunkSize;
    record.blocks = ManifestRecord::hex(set_.hasher->blocksOf(file));
    return record;
}

} // namespace velmora
