#include "verify/VerifyJob.h"

#include "engine/FolderLocks.h"
#include "platform/PowerInhibitor.h"
#include "verify/BackupVerifier.h"
#include "verify/VerificationTrace.h"

namespace velmora {

namespace {
constexpr std::size_t chunkSize = 0x1000000;
}

VerifyJob::VerifyJob(std::string cardPath, Log log, std::optional<HistoryStore> history, PauseGate* pauses)
    : cardPath_(std::move(cardPath)), log_(std::move(log)), history_(std::move(history)), pauses_(pauses) {}

VerifyJob::Status VerifyJob::currentStatus() const {
    MutexLock lock(lock_);
    return status_;
}

void VerifyJob::end(State state, std::optional<VerifyResult> result, std::optional<std::string> error,
                    std::optional<PreflightCode> code) {
    MutexLock lock(lock_);
    status_.state = state;
    status_.result = std::move(result);
    status_.error = std::move(error);
    status_.errorCode = code;
}

void VerifyJob::run() {
    {
        MutexLock lock(lock_);
        status_.state = cancelled_.load() ? State::cancelled : State::running;
        if (status_.state == State::cancelled)
            return;
    }
    try {
        const PowerInhibitor awake("Verifying a backup", log_);
        const FolderLocks locks = FolderLocks::forReading(cardPath_);
        const auto progress = [this](const VerifyProgress& now) {
            MutexLock lock(lock_);
            status_.progress = now;
        };
        const auto worker = pauses_ != nullptr ? pauses_->work() : nullptr;
        VerifyResult result =
            BackupVerifier::verify(cardPath_, chunkSize, progress, [this] { return cancelled_.load(); }, worker.get());
        if (auto why = history_ ? VerificationTrace::record(*history_, result, log_) : std::nullopt) {
            MutexLock lock(lock_);
            status_.notKept = std::move(why);
        }
        const State state = result.cancelled ? State::cancelled : State::done;
        end(state, std::move(result), std::nullopt, std::nullopt);
    } catch (const OffloadError& error) {
        end(State::failed, std::nullopt, error.what(), error.code());
    } catch (const std::exception& error) {
        end(State::failed, std::nullopt, error.what(), std::nullopt);
    }
}

} // namespace velmora
