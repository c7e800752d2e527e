#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "engine/OffloadEngine.h"
#include "job/JobStatus.h"
#include "records/JobConfig.h"

#include <memory>
#include <optional>
#include <string>

namespace velmora {

class FolderLocks;
struct OffloadPlan;
struct OffloadReport;

// One card's whole run: preflight, copy, flush, read-back, records. Decides when the card may be ejected and when it
// may be formatted, and takes neither promise lightly: a file that failed, a record that could not be written on one
// of the disks, a card that was swapped and a read-back that did not happen each deny it.
//
// A front end creates it, calls `run` once on a thread of its own and polls `status`. Everything but `run` may be
// called from any thread.
class OffloadJob {
public:
    // Block size, buffers and the like come from `config`; `options` carries what only a front end or a test knows.
    explicit OffloadJob(JobConfig config, OffloadOptions options = {});
    ~OffloadJob();
    OffloadJob(const OffloadJob&) = delete;
    OffloadJob& operator=(const OffloadJob&) = delete;

    const JobConfig& config() const noexcept { return config_; }

    // All checks; creates nothing. Throws OffloadError, Cancelled.
    OffloadPlan prepare();

    // The whole pipeline. What goes wrong ends in `status()`.
    void run(const Log& log);

    // The current block is finished, partly copied files are deleted; what is complete stays and is recorded.
    void cancel();
    bool isCancelled() const noexcept { return engine_.isCancelled(); }
    void pause();
    void resume();
    bool isPaused() const;

    JobStatus status() const EXCLUDES(mutex_);
    // The plan as it runs; null before the card folders are claimed.
    std::shared_ptr<const OffloadPlan> plan() const { return engine_.plan(); }
    // Null until the copy stage has ended, and when there was nothing to report.
    std::shared_ptr<const OffloadReport> report() const EXCLUDES(mutex_);
    const OffloadEngine& engine() const noexcept { return engine_; }

private:
    void runCopy();
    void lockFolders();
    void settle(OffloadReport report) EXCLUDES(mutex_);
    void markIncomplete(const OffloadReport& report);
    void endAs(JobStatus::Phase phase, std::optional<std::string> error = {}, std::optional<PreflightCode> code = {})
        EXCLUDES(mutex_);
    void log(std::string_view line) const EXCLUDES(mutex_);

    const JobConfig config_;
    mutable Mutex mutex_;
    JobStatus state_ GUARDED_BY(mutex_);
    std::shared_ptr<const OffloadReport> report_ GUARDED_BY(mutex_);
    Log log_ GUARDED_BY(mutex_);
    std::unique_ptr<FolderLocks> locks_; // of the thread that runs
    OffloadEngine engine_;
};

} // namespace velmora
