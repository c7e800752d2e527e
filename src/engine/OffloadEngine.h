#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "base/PauseGate.h"
#include "engine/CopyTimes.h"
#include "engine/OffloadOptions.h"
#include "engine/Preflight.h"
#include "engine/SourceCard.h"
#include "records/ProgressSnapshot.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

class CopyRun;
class HeldFolders;
struct OffloadPlan;
struct OffloadReport;

// Copies one card: reads every file once, writes it to all destinations at the same time, makes the copies durable,
// and reads them back. What it found out is the report; whoever runs it records that. A destination that fails loses
// its own files and nothing else.
//
// One engine makes one run. `run` works on the caller's thread; everything else may be called from any thread.
class OffloadEngine {
public:
    explicit OffloadEngine(OffloadOptions options, Log log = {});
    ~OffloadEngine();
    OffloadEngine(const OffloadEngine&) = delete;
    OffloadEngine& operator=(const OffloadEngine&) = delete;

    // Before `run` only.
    OffloadOptions& options() noexcept { return options_; }
    // Called when the card folders are claimed, their names are final, and nothing stands in them yet. If it throws,
    // the run ends and the folders that it has made are removed.
    using Claimed = std::function<void(const OffloadPlan& plan)>;
    void setAfterClaim(Claimed hook) { afterClaim_ = std::move(hook); }
    // Called before the rename that makes a file final, with the indexes of destination and file and the final path. A
    // repair moves the defective copy aside here. If it throws, the file has failed on that destination.
    using BeforeRename = std::function<void(std::size_t destination, std::size_t file, const std::string& finalPath)>;
    void setBeforeRename(BeforeRename hook) { beforeRename_ = std::move(hook); }

    // All checks, nothing created; throws OffloadError. Keeps spaceWarnings and spaceLines.
    OffloadPlan prepare(const Preflight::Inputs& inputs, const Preflight::ExtraOf& extra = {},
                        const Preflight::FreeSpace& freeSpace = {});

    // Holds the card folders that the run will write into, before anybody looks at them. A full copy needs no call: it
    // holds its folders once they are made, below the roots that `prepare` has checked.
    void hold(const std::vector<std::string>& cardPaths);
    // Null until folders are held. Shared with threads that may hang on a disk, and so it may outlive the engine.
    const std::shared_ptr<const HeldFolders>& held() const noexcept { return held_; }

    // Does what the plan says and returns the report, which is not written anywhere yet. Files that failed are data in
    // it; so is a cancel (`isCancelled`, the files that were not copied are "cancelled"). A full copy claims its card
    // folder on all destinations at once; when another run was faster it takes the next free name, and `plan()` and the
    // report say which. Throws when nothing could be done at all (no destination can be written), SimulatedCrash, and
    // what the hook of `setAfterClaim` throws.
    OffloadReport run(OffloadPlan plan);

    void cancel();
    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }
    PauseGate& pauses() noexcept { return pauses_; }
    const PauseGate& pauses() const noexcept { return pauses_; }
    // `totalBytes` counts what this run has to read: what an interrupted run has already settled is left out.
    ProgressSnapshot snapshot() const EXCLUDES(mutex_);

    // The plan of the run; null until the card folders are claimed and the run has its buffers and writers.
    std::shared_ptr<const OffloadPlan> plan() const EXCLUDES(mutex_);
    // Remembers the card that is in the reader as that of the run. `run` does so itself if nobody has.
    void meetCard(const std::string& source) { card_.emplace(source, options_.cardIdentity); }
    // Checks whether that card is still there, and keeps the answer for `cardChanged`. Does nothing after a cancel.
    void lookForOtherCard();
    // Only answers whether it is there, for a card that was released and may leave. False when cancelled.
    bool cardIsThere() const;
    // The hash of one block of a file on the card, after `run`. None when unreadable or on another card.
    std::optional<std::uint64_t> readCardBlock(std::size_t file, std::int64_t block);
    // The card was found swapped or removed.
    bool cardChanged() const noexcept { return cardChanged_.load(); }
    const std::vector<std::string>& spaceWarnings() const noexcept { return space_.warnings; }
    const std::vector<SpaceLine>& spaceLines() const noexcept { return space_.lines; }

    // After `run`:
    // Block hashes of the source, parallel to the report's files; empty where a file could not be read.
    const std::vector<std::vector<std::uint64_t>>& fileBlocks() const noexcept { return fileBlocks_; }
    // Bytes a second that each destination took while it was written; 0 when nothing was.
    const std::vector<double>& writeRates() const noexcept { return writeRates_; }
    std::optional<std::string> cardAtStart() const { return card_ ? card_->identity() : std::nullopt; }
    std::int64_t resumedBytes() const noexcept { return resumedBytes_; } // taken over from part files
    const CopyTimes& copyTimes() const noexcept { return copyTimes_; }
    // Card folders on disks that were never flushed successfully. Nothing is promised for them. `reportProblems` has a
    // sentence for each.
    const std::vector<std::string>& unflushed() const noexcept { return unflushed_; }
    // One sentence for each card folder on a disk that was never flushed successfully. The report that `run` returned
    // then has `verifyIncomplete` set, and the card is not safe to format.
    const std::vector<std::string>& reportProblems() const noexcept { return reportProblems_; }

private:
    friend class CopyRun;
    void setPhase(ProgressSnapshot::Phase phase) EXCLUDES(mutex_);
    void holdCard();

    OffloadOptions options_;
    const Log log_;
    Claimed afterClaim_;
    BeforeRename beforeRename_;
    PauseGate pauses_;
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> cardChanged_{false};
    Preflight::Space space_;
    std::unique_ptr<HeldFolders> roots_;      // of the thread that runs
    std::shared_ptr<const HeldFolders> held_; // of the thread that runs; asked by all

    mutable Mutex mutex_;
    ProgressSnapshot::Phase phase_ GUARDED_BY(mutex_) = ProgressSnapshot::Phase::copy;
    ProgressSnapshot last_ GUARDED_BY(mutex_); // of the run that has ended
    std::shared_ptr<const OffloadPlan> plan_ GUARDED_BY(mutex_);
    CopyRun* running_ GUARDED_BY(mutex_) = nullptr;

    std::vector<std::vector<std::uint64_t>> fileBlocks_;
    std::vector<double> writeRates_;
    std::optional<SourceCard> card_;
    std::int64_t resumedBytes_ = 0;
    CopyTimes copyTimes_;
    std::vector<std::string> reportProblems_;
    std::vector<std::string> unflushed_;
};

} // namespace velmora
