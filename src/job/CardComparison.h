#pragma once

#include "base/Errors.h"
#include "base/PauseGate.h"
#include "job/JobStatus.h"
#include "memory/AppendPlan.h"

#include <atomic>
#include <cstdint>

namespace velmora {

// Holds a card that nothing tells from another one against the records of a backup, before anything is written there: a
// card of the same names, sizes and times must not leave its failures in a backup that is good.
class CardComparison {
public:
    // Reads every file of the plan of which a digest is recorded. Throws `appendOtherCard` at the first that differs,
    // and Cancelled. One that cannot be read is left to the run, which records it as failed; with `all` it throws
    // another OffloadError. A pause takes effect between two pieces of a file.
    void run(const AppendPlan& plan, bool all, PauseGate& gate, const IsCancelled& isCancelled);
    // What is being read, and how far. False when nothing is. Any thread.
    bool describe(JobStatus& status) const;

private:
    std::atomic<bool> reading_ = false;
    std::atomic<std::int64_t> done_ = 0;
    std::atomic<std::int64_t> total_ = 0;
};

} // namespace velmora
