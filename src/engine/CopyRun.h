#pragma once

#include "base/Counter.h"
#include "base/PauseGate.h"
#include "engine/BufferPool.h"
#include "engine/CardFolders.h"
#include "engine/DestWriter.h"
#include "engine/SourceClock.h"
#include "engine/SourceHasher.h"
#include "records/OffloadReport.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

class OffloadEngine;
class SourceReader;
struct OffloadPlan;
struct ProgressSnapshot;

// One run of the engine: everything that lives as long as data moves. The caller's thread reads the card and hands each
// block to the hasher and to every destination that needs it; all of them share one buffer.
class CopyRun {
public:
    CopyRun(OffloadEngine& engine, std::shared_ptr<const OffloadPlan> plan,
            std::vector<CardFolders::Destination> destinations);
    ~CopyRun();

    OffloadReport run();
    // Adds to the snapshot what only the run knows. Any thread may call this.
    void describe(ProgressSnapshot& snapshot) const;

private:
    // What has to be done for one file.
    struct Task {
        std::size_t file = 0;
        std::vector<DestWriter*> targets; // write it
        std::vector<DestWriter*> holders; // have it already, according to the plan
        const ManifestRecord* known = nullptr;
    };

    void makeWriters();
    void copyAll();
    bool holdBetweenFiles();
    void drainAll();
    void endAt(std::size_t file, std::string reason);
    void endForOtherCard(std::size_t file);
    const Task& taskOf(std::size_t file);
    bool adoptKnown(const Task& task);
    SourceReader openSource(std::size_t file);
    void copySmall(const Task& task);
    void copyLarge(const Task& task);
    std::int64_t startLarge(const Task& task);
    std::int64_t readBlocks(const Task& task, SourceReader& reader, std::int64_t offset);
    void checkAgainstKnown(const Task& task);
    void adoptHeld(const Task& task);
    void handOn(const Task& task, Chunk& chunk, bool wholeFile);
    void sourceFailed(const Task& task, const std::string& error, bool begun);
    void afterBlock(std::size_t file, std::int64_t block);
    Chunk& takeChunk(std::size_t bytes, bool slice);
    void flush();
    void evictSmall();
    bool verify(); // false when it did not run to its end
    void keepTimes(std::int64_t began);
    OffloadReport buildReport(bool verified) const;
    void blameFlush(bool verified);
    bool isCancelled() const noexcept;
    void say(const std::string& text) const;

    OffloadEngine& engine_;
    const std::shared_ptr<const OffloadPlan> plan_;
    std::vector<CardFolders::Destination> destinations_;
    NameClashes clashes_;
    BufferPool pool_;
    SourceClock sourceClock_;
    SourceHasher hasher_;
    std::vector<std::unique_ptr<DestWriter>> writers_; // one per destination; null where it takes no part
    std::unique_ptr<PauseGate::Worker> worker_;

    Task task_; // reused, so that a file costs no allocation
    std::map<std::size_t, std::string> sourceErrors_;
    std::size_t endedAt_; // no file from this one on was copied; `endReason_` says why
    std::string endReason_;
    std::int64_t blocksRead_ = 0;
    std::int64_t waitedNanos_ = 0;  // that the reader waited for buffers
    std::int64_t readingNanos_ = 0; // that the reader spent on the source
    Timestamp started_;
    Timestamp copyFinished_;
    double pausedBefore_ = 0; // pauses before this run, while a repair read the copies for example
    double copyPaused_ = 0;
    double verifyPaused_ = 0;

    std::int64_t totalBytes_;
    Counter settledBytes_;         // to be read no more: known, taken over from part files, or unreadable
    std::vector<Counter> toWrite_; // per destination
    std::int64_t readOfFile_ = 0;  // of the current file; what part files gave counts as read and handed on
    std::int64_t handedOn_ = 0;
    Counter readBytes_;
    Counter checkedBytes_;
    Counter uncheckedBytes_;          // of part files that turned out not to match
    const std::int64_t bytesToCheck_; // of part files
    Counter sourceFailures_;
    std::atomic<std::size_t> fileIndex_{0};
};

} // namespace velmora
