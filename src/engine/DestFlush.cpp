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

void DestWriter::keepFolders(const std::set<std::string, std::less<>>& folders) {
    flush_.touched(set_.cardPath);
    for (const std::string& folder : folders)
        flush_.touched(set_.cardPath + "/" + folder);
}

void DestWriter::record(std::size_t file) {
    if (!flushedAlone(file)) {
        wait(file, false);
        return;
    }
    try {
        const ManifestRecord record = line(file);
        checkFolder();
        ManifestFile::append(set_.cardPath, std::span(&record, 1));
    } catch (const std::exception& error) {
        say(fmt::format("{} not recorded: {}", fileAt(file).relPath, error.what()));
    }
}

void DestWriter::wait(std::size_t file, bool adopted) {
    waiting_.push_back({file, adopted});
    if (adopted)
        return;
    waitingSize_ += fileAt(file).size;
    if (waiting_.size() >= waitingFiles || waitingSize_ >= waitingBytes)
        flushWaiting();
}

bool DestWriter::flushWaiting() {
    waitingSize_ = 0;
    try {
        checkFolder();
        flush_.flush(!set_.clashes->flushFile);
    } catch (const std::exception& error) {
        say(fmt::format("{}: the flush failed: {}", set_.cardPath, error.what()));
        // No later flush speaks for these files: they get no line, and the read-back finds those that were lost. What
        // an earlier run has recorded was durable before this flush.
        std::erase_if(waiting_, [](const Waiting& waiting) { return !waiting.adopted; });
        flushFailed_ = true;
        return false;
    }
    set_.hasher->wait();
    appendWaiting();
    return true;
}

// Lines that could not be appended wait for the next flush. The files are good.
void DestWriter::appendWaiting() {
    std::size_t done = 0;
    try {
        std::vector<ManifestRecord> lines;
        while (done < waiting_.size()) {
            const std::size_t end = std::min(done + linesAtOnce, waiting_.size());
            for (std::size_t at = done; at < end; ++at)
                if (hasLine(waiting_[at].file))
                    lines.push_back(line(waiting_[at].file));
            checkFolder();
            ManifestFile::append(set_.cardPath, lines);
            lines.clear();
            done = end;
        }
    } catch (const std::exception& error) {
        say(fmt::format("{}: finished files not recorded: {}", set_.cardPath, error.what()));
    }
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(done));
}

// What was written must equal what was read; if not, memory failed between the two. Asked before the file gets its
// final name.
std::optional<std::string> DestWriter::mismatch(std::size_t file) const {
    set_.hasher->waitFor(file);
    const std::vector<std::uint64_t>& source = set_.hasher->blocksOf(file);
    for (std::size_t b = 0; b < std::max(blockHashes_.size(), source.size()); ++b) {
        const std::uint64_t dest = b < blockHashes_.size() ? blockHashes_[b] : 0;
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
