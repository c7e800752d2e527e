#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "base/PauseGate.h"
#include "memory/HistoryStore.h"
#include "verify/VerifyResult.h"

#include <atomic>
#include <optional>
#include <string>

namespace velmora {

// One verification of one card folder: keeps the machine awake and the folder locked against appends and repairs while
// it runs. `run` works on the caller's thread; everything else may be called from any thread.
class VerifyJob {
public:
    enum class State { waiting, running, done, cancelled, failed };

    // `failed` is a failure of the run, not of the backup: mismatches end in `done`.
    struct Status {
        State state = State::waiting;
        std::optional<VerifyProgress> progress;
        std::optional<VerifyResult> result;
        std::optional<std::string> notKept; // why the card history does not know the result
        std::optional<std::string> error;
        std::optional<PreflightCode> errorCode;
    };

    // With a `history` the result leaves its trace there. `pauses`, which several jobs may share, holds the job between
    // two files and outlives it.
    explicit VerifyJob(std::string cardPath, Log log = {}, std::optional<HistoryStore> history = {},
                       PauseGate* pauses = nullptr);

    const std::string& cardPath() const noexcept { return cardPath_; }
    void run();
    void cancel() noexcept { cancelled_.store(true); }
    Status currentStatus() const;

private:
    void end(State state, std::optional<VerifyResult> result, std::optional<std::string> error,
             std::optional<PreflightCode> code);

    const std::string cardPath_;
    const Log log_;
    std::optional<HistoryStore> history_;
    PauseGate* const pauses_;
    std::atomic<bool> cancelled_{false};
    mutable Mutex lock_;
    Status status_ GUARDED_BY(lock_);
};

} // namespace velmora
