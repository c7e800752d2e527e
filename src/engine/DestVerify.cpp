#include "blocks/ReadBack.h"
#include "engine/DestWriter.h"
#include "engine/OffloadOptions.h"
#include "engine/SourceHasher.h"

namespace velmora {

void DestWriter::doVerify(std::span<std::byte> buffer, PauseGate::Worker& worker, const IsCancelled& isCancelled) {
    ReadBack readBack(buffer);
    ReadBack::Hooks hooks;
    hooks.isCancelled = isCancelled;
    std::int64_t readOfFile = 0;
    hooks.progress = [this, &readOfFile](std::int64_t bytes) {
        verified_.add(bytes);
        readOfFile += bytes;
        if (set_.options->afterVerifyChunk)
            set_.options->afterVerifyChunk();
    };
    for (std::size_t file = 0; file < results_.size(); ++file)
        if (results_[file].state == FileState::written && set_.hasher->hashOf(file))
            toVerify_.add(fileAt(file).size);
    for (std::size_t file = 0; file < results_.size(); ++file) {
        // Without a source hash there is nothing to compare with; the report has the source's error.
        if (results_[file].state != FileState::written || !set_.hasher->hashOf(file))
            continue;
        if (isCancelled() || !worker.waitWhilePaused(isCancelled))
            break;
        verifyingNow_.store(static_cast<std::int64_t>(file), std::memory_order_relaxed);
        const SourceFile& source = fileAt(file);
        readOfFile = 0;
        ReadBack::Outcome outcome;
        try {
            checkFolder();
            outcome = readBack.verify(
                set_.cardPath, source.relPath,
                {source.size, set_.hasher->hashOf(file), set_.options->chunkSize, set_.hasher->blocksOf(file)}, hooks);
        } catch (const OffloadError& error) {
            outcome.result = {FileState::failed, error.what()};
        }
        toVerify_.add(readOfFile - source.size); // what could not be read, or was read twice
        if (outcome.result.state == FileState::failed)
            failures_.add(1);
        if (outcome.result.state == FileState::verified && outcome.throughCache)
            ++cachedReads_;
        xxh128_[file] = std::move(outcome.xxh128).value_or(std::string());
        if (!outcome.wrong.empty())
            wrong_.push_back({file, std::move(outcome.wrong)});
        if (!outcome.unstable.empty())
            unstable_.push_back({file, std::move(outcome.unstable)});
        results_[file] = std::move(outcome.result);
    }
    verifyingNow_.store(-1, std::memory_order_relaxed);
}

} // namespace velmora
