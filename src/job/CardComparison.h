#pragma once

#include "base/Errors.h"
#include "base/PauseGate.h"
#include "job/JobStatus.h"
#include "memory/AppendPlan.h"

#include <atomic>
#include <cstdint>

namespace velmora {

// Compares a card with the records of a backup before anything is written there. Another card may have the same names,
// sizes and times, and must not bring its failures into a good backup.
class CardComparison {
public:
    // Reads every file of the plan whose digest is recorded. Throws Cancelled, and `appendOtherCard` at the first file
    // that differs. A file that cannot be read is left to the run, which records it as failed; with `all` it throws
    // another OffloadError instead. A pause takes effect between two pieces of a file.
    void run(const AppendPlan& plan, bool all, PauseGate& gate, const IsCancelled& isCancelled);
    // Puts into `status` what is being read and how far. False when nothing is. Any thread.
    bool describe(JobStatus& status) const;

private:
    std::atomic<bool> reading_ = false;
    std::atomic<std::int64_t> done_ = 0;
    std::atomic<std::int64_t> total_ = 0;
};

} // namespace velmora
