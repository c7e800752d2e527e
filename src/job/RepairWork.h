#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "base/PauseGate.h"
#include "engine/OffloadEngine.h"
#include "job/JobStatus.h"
#include "memory/RepairPlanner.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// What a repair does beside the engine: it reads every copy to learn which are bad, and moves the bad ones aside when
// their successors are ready.
//
// The order makes an interrupted repair harmless. A defective copy keeps its name until the new one lies complete
// beside it under the part name; then it moves below _REPORT and the new one takes its place, so that the file is
// missing for a moment only. A repair that dies is begun again from what lies on the disks: nothing but the reading is
// lost.
class RepairWork {
public:
    explicit RepairWork(std::vector<std::string> cardPaths) : cardPaths_(std::move(cardPaths)) {}

    const std::vector<std::string>& cardPaths() const noexcept { return cardPaths_; }

    // Checks every folder against its records, all at once, a thread a folder. Throws the first failure, and Cancelled.
    // A pause takes effect between two pieces of a file.
    std::vector<RepairPlanner::Findings> examine(PauseGate& gate, const IsCancelled& isCancelled);
    // Compares bad files with the card, and plans. Pauses as above. Throws Cancelled, and as RepairPlanner::plan.
    RepairPlan plan(const AppendPlanner::Ask& ask, const RepairPlanner::Checked& checked,
                    const std::vector<RepairPlanner::Findings>& findings, const FolderStates& folders, PauseGate& gate,
                    const IsCancelled& isCancelled);
    // Puts into `status` what is being read and how far. False when nothing is. Any thread.
    bool describe(JobStatus& status) const;

    // The hook of the engine that moves a defective copy aside. `plan` must outlive the run.
    OffloadEngine::BeforeRename mover(const RepairPlan& plan);

private:
    struct Reading {
        std::string what;
        std::vector<std::int64_t> done;
        std::vector<std::int64_t> total; // 0: not known
    };
    class Step;

    const std::vector<std::string> cardPaths_;
    mutable Mutex mutex_;
    std::optional<Reading> reading_ GUARDED_BY(mutex_);
};

} // namespace velmora
