#pragma once

#include "base/Errors.h"
#include "records/ProgressSnapshot.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// What helps with a card whose run could not give both promises.
enum class Remedy {
    none,      // nobody knows: nothing was judged
    append,    // brings what is missing, and reads back what was not
    compare,   // an append that also compares what earlier runs copied
    repair,    // copies bad copies again
    inspect,   // more disks or records matter than the run has seen: they have to be looked at
    copyAgain, // only a full copy helps
    otherDisk, // a full copy to a disk that is not the card
};

// How one job stands: the one record that front ends read. A plain value; `OffloadJob::status()` hands out copies.
struct JobStatus {
    // In the order in which a job moves through them, never backwards. The last three are final.
    enum class Phase {
        waiting,
        copying,
        flushing,
        verifying,
        reporting,
        analyzing,
        proxies,
        finishingVerification,
        done,
        failed,
        cancelled,
    };

    Phase phase = Phase::waiting;
    std::optional<ProgressSnapshot> copy; // the engine's numbers
    std::int64_t clipIndex = 0;           // clip now in work, from 1, of `clipCount`
    std::int64_t clipCount = 0;
    std::string clipName;
    double clipFraction = 0; // 0 … 1 within the clip
    std::int64_t proxiesDone = 0;
    std::int64_t proxiesFailed = 0;
    bool safeToEject = false;
    bool safeToFormat = false;
    std::vector<std::string> warnings; // each once, in the order in which they came up
    std::optional<bool> copySucceeded; // none until the copy stage has ended
    std::optional<std::string> error;
    std::optional<PreflightCode> errorCode;
    std::optional<std::string> note;
    Remedy remedy = Remedy::none;         // where a promise is denied
    bool paused = false;                  // a pause is asked for
    bool pauseHeld = false;               // the job stands
    std::optional<std::string> pauseStep; // what the job finishes before it stands
    double pausedTotal = 0;               // seconds
    bool verifyInProxy = false;
    // What is read before the copy can begin ("Checking the backup"), with the bytes below; none otherwise.
    std::optional<std::string> examining;
    std::int64_t verifyDone = 0; // bytes
    std::int64_t verifyTotal = 0;
    std::vector<std::int64_t> verifyDoneByDest;
    std::vector<std::int64_t> verifyTotalByDest;
    std::int64_t contentWarnings = 0;

    void addWarning(const std::string& warning);
    // All warnings, one a line; none when there is none.
    std::optional<std::string> warning() const;

    bool isFinished() const noexcept { return isFinished(phase); }
    static bool isFinished(Phase phase) noexcept { return phase >= Phase::done; }
};

// "waiting", "copying" …: the name of the case, for scripts.
std::string_view name(JobStatus::Phase phase) noexcept;

} // namespace velmora
