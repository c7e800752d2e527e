#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "engine/OffloadEngine.h"
#include "memory/RepairPlanner.h"

#include <cstdint>
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
    std::vector<RepairPlanner::Findings> examine(const IsCancelled& isCancelled);
    // Bytes read and to be read by `examine`, per folder. Any thread.
    std::vector<std::int64_t> bytesRead() const;
    std::vector<std::int64_t> bytesTotal() const;

    // The hook of the engine that moves a defective copy aside. `plan` must outlive the run.
    OffloadEngine::BeforeRename mover(const RepairPlan& plan);

private:
    struct Progress {
        std::int64_t read = 0;
        std::int64_t total = 0;
    };

    const std::vector<std::string> cardPaths_;
    mutable Mutex mutex_;
    std::vector<Progress> progress_ GUARDED_BY(mutex_);
};

} // namespace velmora
