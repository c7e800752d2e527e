#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "engine/OffloadEngine.h"
#include "job/JobStatus.h"
#include "memory/BackupCheck.h"
#include "records/JobConfig.h"
#include "records/SourceFile.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

class FolderLocks;
class PowerInhibitor;
class HistoryKeeper;
class HistoryRecorder;
class RepairWork;
struct OffloadPlan;
struct OffloadReport;

// What a job shares with other jobs of its process. Lives longer than the job.
struct JobServices {
    HistoryRecorder* history = nullptr; // none: no history is kept
    std::string supportFolder;          // the application-support folder
};

// One card's whole run: preflight, copy, flush, read-back, records. Decides when the card may be ejected and when it
// may be formatted, and takes neither promise lightly: a file that failed, a record that could not be written on one
// of the disks, a card that was swapped and a read-back that did not happen each deny it.
//
// A front end creates it, calls `run` once on a thread of its own and polls `status`. Everything but `run` may be
// called from any thread.
class OffloadJob {
public:
    // Block size, buffers and the like come from `config`; `options` carries what only a front end or a test knows.
    // `config.appendInto` makes the job an append, or the finishing of what an interrupted run left there.
    explicit OffloadJob(JobConfig config, OffloadOptions options = {}, JobServices services = {});
    ~OffloadJob();
    OffloadJob(const OffloadJob&) = delete;
    OffloadJob& operator=(const OffloadJob&) = delete;

    const JobConfig& config() const noexcept { return config_; }

    // Makes the job a repair of the backup in these card folders. Before `run` only.
    void repairInto(std::vector<std::string> cardPaths);

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
    void runAppend(const std::vector<std::string>& cardPaths);
    void runRepair();
    void foldersClaimed() EXCLUDES(mutex_);
    void lockFolders(const std::vector<std::string>& cardPaths);
    void begin(JobStatus::Phase phase) EXCLUDES(mutex_);
    void openHistory(const Log& log);
    void recordFinish(const OffloadReport& report, const std::optional<BackupCheck>& wholeCard);
    void takeBackStart();
    void learnRates(const OffloadReport& report);
    // `wholeCard` after a run that covered a part of the card: the promises hold for the whole card or not at all.
    // `filesAdded` came onto the card while it was copied.
    void settle(OffloadReport report, const std::optional<BackupCheck>& wholeCard, std::int64_t filesAdded = 0)
        EXCLUDES(mutex_);
    SourceScan scanAgain(const SourceScan& before) const;
    // Never throws: what keeps it from looking stands in the check. Without `card` the card is scanned.
    BackupCheck checkWholeCard(const std::vector<std::string>& cardPaths, const SourceScan* card = nullptr) const;
    void checkSpace(const OffloadPlan& plan) EXCLUDES(mutex_);
    void addSpaceWarning(const std::string& warning) EXCLUDES(mutex_);
    void setExamining(bool examining) EXCLUDES(mutex_);
    void nothingNew(const OffloadError& error, const std::vector<std::string>& cardPaths) EXCLUDES(mutex_);
    void addWarning(const std::string& warning) EXCLUDES(mutex_);
    void takeBackPromise(OffloadReport& report, const std::optional<BackupCheck>& wholeCard, std::int64_t filesAdded);
    void rewriteReports(const OffloadReport& report);
    void guardHistory(const std::function<void()>& call) const;
    void endAs(JobStatus::Phase phase, std::optional<std::string> error = {}, std::optional<PreflightCode> code = {})
        EXCLUDES(mutex_);
    void log(std::string_view line) const EXCLUDES(mutex_);

    const JobConfig config_;
    mutable Mutex mutex_;
    JobStatus state_ GUARDED_BY(mutex_);
    std::shared_ptr<const OffloadReport> report_ GUARDED_BY(mutex_);
    bool examining_ GUARDED_BY(mutex_) = false; // a repair reads the copies
    Log log_ GUARDED_BY(mutex_);
    const JobServices services_;
    std::unique_ptr<RepairWork> repair_;
    std::unique_ptr<FolderLocks> locks_;     // of the thread that runs
    std::unique_ptr<PowerInhibitor> awake_;  // from the first step that takes time
    std::unique_ptr<HistoryKeeper> history_; // of the thread that runs
    std::vector<SourceFile> card_;           // what a copy takes in, for the history
    OffloadEngine engine_;
};

} // namespace velmora
