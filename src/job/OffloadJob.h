#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "engine/OffloadEngine.h"
#include "job/CardComparison.h"
#include "job/HistoryKeeper.h"
#include "job/JobStatus.h"
#include "job/Promises.h"
#include "memory/AppendPlanner.h"
#include "memory/FolderState.h"
#include "memory/RepairPlanner.h"
#include "records/ClipEntry.h"
#include "records/JobConfig.h"
#include "records/SourceFile.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velmora {

class FolderLocks;
class PowerInhibitor;
class HistoryRecorder;
class RepairWork;
class VerifySession;
struct OffloadPlan;
struct OffloadReport;

// What a job shares with other jobs of its process. Lives longer than the job.
struct JobServices {
    HistoryRecorder* history = nullptr; // none: no history is kept
    std::string supportFolder;          // the application-support folder
};

// One card's whole run: preflight, copy, flush, read-back, records. Says when the card may be ejected and when it may
// be formatted. `Promises` decides that from what the run has found.
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

    // An append that reads every file of the card and holds it against its copies. Before `run` only.
    void compareCard() { compareCard_ = true; }
    // The command line that would compare the card, for the sentence that asks for it. Before `run` only.
    void setCompareCommand(std::string command) { compareCommand_ = std::move(command); }

    // What is on the card, listed a moment ago, while `identity` was the card's (CardIdentity::momentary). The run
    // plans with it instead of listing the card once more, as long as that card is still there. Before `run` only.
    void useListing(SourceScan listing, std::string identity);

    // The checks of a copy that need no look at the card's files. Throws OffloadError.
    static void checkInputs(const JobConfig& config, const OffloadOptions& options);
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
    // What the end of a run has to know of its beginning.
    struct Conclusion {
        bool create = false;             // the report of the generation is a new one
        SourceScan card;                 // the scan that the plan was made from
        bool coversPart = false;         // the promises hold for the whole card, of which the run did a part
        bool comparesAll = true;         // no file of the card is accepted by its name, size and time alone
        std::int64_t unproved = 0;       // files with a changed or unverified copy that this run did not read
        bool readAll = false;            // every copy in the folders has been read and held against its records
        std::vector<CardRecord> records; // of the folders, before the run
        std::vector<BackupPlace> elsewhere;
    };

    // The card, looked at when its copy had ended.
    struct CardLook {
        bool seen = false;
        bool swapped = false;
        std::optional<std::string> error; // it could not be looked at
        std::optional<SourceScan> now;    // its files, if it was seen
        bool localTime = false;           // its file times are local time
    };

    void runCopy();
    void runAppend(const std::vector<std::string>& cardPaths);
    void runRepair();
    AppendPlanner::Ask ask(const std::vector<std::string>& cardPaths);
    // Every loop that reads before or after the engine's run asks this. It waits while the job is paused.
    bool mustStop();
    RepairPlanner::Checked checkRepair(const std::vector<std::string>& cardPaths);
    void moveStrangePages(const std::vector<std::string>& cardPaths, std::int64_t generation);
    RepairPlan compareWithCard(const AppendPlanner::Ask& asked, const RepairPlanner::Checked& checked,
                               const std::vector<RepairPlanner::Findings>& findings);
    void requireSameContent(const AppendPlan& append);
    // Reads on the card and in the backup before the engine runs. `read` gets what tells it to stop.
    void readBeforehand(const std::function<void(const IsCancelled&)>& read);
    void requireSameCard();
    void settleRecords(const OffloadReport& report, const std::vector<std::string>& cardPaths);
    void nothingNew(const AppendPlanner::NothingNew& nothing);
    void foldersClaimed(const OffloadPlan& plan) EXCLUDES(mutex_);
    void openFolders(const std::vector<std::string>& cardPaths);
    void lockFolders(const std::vector<std::string>& cardPaths);
    void begin(JobStatus::Phase phase) EXCLUDES(mutex_);
    void examine(std::optional<std::string> what) EXCLUDES(mutex_);
    void listSetAside(OffloadReport& report) EXCLUDES(mutex_);
    void checkSpace(const OffloadPlan& plan) EXCLUDES(mutex_);
    void addSpaceWarning(const std::string& warning) EXCLUDES(mutex_);

    CardLook lookAtCard();
    Promises::Evidence gather(const Conclusion& conclusion, const OffloadReport* report);
    void conclude(OffloadReport built, Conclusion& conclusion) EXCLUDES(mutex_);
    // Concludes the run, and then works on the clips.
    void finishRun(OffloadReport built, Conclusion& conclusion) EXCLUDES(mutex_);
    void release(OffloadReport& report, const Conclusion& conclusion) EXCLUDES(mutex_);
    void takeOverProved(OffloadReport& report) const;
    void withdrawProofs(const OffloadPlan& plan);
    void startVerification(const OffloadReport& report) EXCLUDES(mutex_);
    void finishVerification(OffloadReport report, Conclusion& conclusion, PauseGate::Worker& worker) EXCLUDES(mutex_);
    void leaveUnfinished(OffloadReport& report, const std::vector<std::string>& gone) EXCLUDES(mutex_);
    void workOnClips(OffloadReport& report, std::vector<ClipEntry> earlier, PauseGate::Worker& worker) EXCLUDES(mutex_);
    bool layReport(OffloadReport& report, bool create = false) EXCLUDES(mutex_);
    void endRun() EXCLUDES(mutex_);
    std::shared_ptr<VerifySession> session() const EXCLUDES(mutex_);
    // The copies of this plan are verified by what the renders of its clips read.
    bool verifiesInProxy(const OffloadPlan& plan) const;
    void deferVerification(const OffloadPlan& plan) EXCLUDES(mutex_);
    void addLastLook(Promises::Evidence& evidence);
    // `note` says that all is well, and gives way to `otherwise` when the backup is not.
    void concludeNothingNew(std::string_view note, std::string_view otherwise, Conclusion& conclusion) EXCLUDES(mutex_);
    std::vector<HistoryVerification> passed(const Conclusion& conclusion, const OffloadReport* report) const;
    void tell(const Promises::Verdict& verdict, Remedy remedy) EXCLUDES(mutex_);
    void learnRates(const OffloadReport& report);
    void requireProxySettings() const;

    void openHistory(const Log& log);
    void askHistory(const std::function<HistoryKeeper::Known()>& question);
    void loseHistory(const std::exception& error);
    void reopenHistory();
    void recordFinish(const OffloadReport& report, const Promises::Evidence& evidence, const Conclusion& conclusion,
                      const Promises::Verdict& verdict);
    void tellPassed(const Conclusion& conclusion, const OffloadReport* report) EXCLUDES(mutex_);
    void takeBackStart();
    void guardHistory(const std::function<void()>& call) const;

    void addWarning(const std::string& warning) EXCLUDES(mutex_);
    void endAs(JobStatus::Phase phase, std::optional<std::string> error = {}, std::optional<PreflightCode> code = {})
        EXCLUDES(mutex_);
    void log(std::string_view line) const EXCLUDES(mutex_);

    const JobConfig config_;
    mutable Mutex mutex_;
    JobStatus state_ GUARDED_BY(mutex_);
    std::shared_ptr<const OffloadReport> report_ GUARDED_BY(mutex_);
    Log log_ GUARDED_BY(mutex_);
    const JobServices services_;
    std::unique_ptr<RepairWork> repair_;
    CardComparison comparison_;
    std::unique_ptr<FolderLocks> locks_;     // of the thread that runs
    std::unique_ptr<PowerInhibitor> awake_;  // from the first step that takes time
    std::unique_ptr<HistoryKeeper> history_; // of the thread that runs
    HistoryKeeper::Known known_;             // before the run
    // What the folders of the backup held when they were last asked.
    const FolderStates folders_{[this] { return mustStop(); }};
    // Of the source when the run began (SpacePlanner::volumeKey), if it could be asked.
    std::optional<std::string> sourceVolume_;
    std::vector<std::string> recorded_; // card folders that have the records of this run
    CardLook look_;                     // the last one
    bool released_ = false;             // the card was called safe to eject; once it has left, `look_` stands
    std::shared_ptr<const OffloadReport> interrupted_; // of the run that this one finishes
    std::optional<double> postSeconds_;                // seconds that the clips took, without pauses
    bool compareCard_ = false;
    std::string compareCommand_;
    OffloadEngine engine_;
    std::shared_ptr<VerifySession> session_ GUARDED_BY(mutex_); // destroyed before the engine, whose pauses it uses
    std::optional<std::pair<SourceScan, std::string>> listing_; // and the identity of its card
};

} // namespace velmora
