#include "job/OffloadJob.h"

#include "base/FileTimes.h"
#include "base/Msg.h"
#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "engine/FolderLocks.h"
#include "engine/Scanner.h"
#include "job/HistoryKeeper.h"
#include "job/RateMemory.h"
#include "job/RepairWork.h"
#include "job/ReportRecorder.h"
#include "job/SetAside.h"
#include "memory/AppendPlanner.h"
#include "memory/BackupCheck.h"
#include "memory/CaseTwins.h"
#include "platform/IO.h"
#include "platform/PowerInhibitor.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "reports/HashLists.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <numeric>
#include <utility>

namespace velmora {

namespace {

using Phase = JobStatus::Phase;

constexpr std::string_view swappedCard =
    "The card in the reader was swapped or removed during the pause — the remaining files were not copied. Insert the "
    "original card and append to the backup.";

// A number too large for a block stays too large, so that the preflight refuses it instead of an overflow.
std::int64_t blockBytes(std::int64_t mebibytes) {
    constexpr std::int64_t mebibyte = 1 << 20;
    return mebibytes > std::numeric_limits<std::int64_t>::max() / mebibyte || mebibytes < 0
               ? std::numeric_limits<std::int64_t>::max()
               : mebibytes * mebibyte;
}

OffloadOptions engineOptions(const JobConfig& config, OffloadOptions options) {
    options.chunkSize = blockBytes(config.chunkMB);
    options.bufferCount = config.buffers;
    options.verify = config.verify;
    options.allowSameDevice = config.allowSameDevice;
    return options;
}

// What stands where a resumed run writes is its own unfinished work, or something that a person put there since: it
// gives way without a trace only when it looks like the file that will replace it, or holds nothing.
OffloadEngine::BeforeRename makingWay(const AppendPlan& append) {
    return [&append, twins = CaseTwins(append.fullScan.files)](std::size_t destination, std::size_t file,
                                                               const std::string&) {
        const SourceFile& source = append.newFiles[file];
        const auto isOwnWork = [&](const FileFacts& there) {
            const bool alike = there.size == source.size && FileTimes::close(there.modified, source.mtime, false);
            return there.isFile && (there.size == 0 || alike);
        };
        SetAside::makeWay(append.cardPaths[destination], append.generation, source.relPath,
                          twins.contains(source.relPath), isOwnWork);
    };
}

Phase phaseOf(ProgressSnapshot::Phase phase) {
    switch (phase) {
    case ProgressSnapshot::Phase::copy:
        return Phase::copying;
    case ProgressSnapshot::Phase::flush:
        return Phase::flushing;
    case ProgressSnapshot::Phase::verify:
        return Phase::verifying;
    case ProgressSnapshot::Phase::report:
    case ProgressSnapshot::Phase::done:
        break;
    }
    return Phase::reporting;
}

// Files that are on the card now and were not there, or not so, in the scan that the copy was made from.
std::int64_t filesAddedSince(const SourceScan& before, const SourceScan& now) {
    std::int64_t added = 0;
    auto known = before.files.begin(); // both lists are sorted by path
    for (const SourceFile& file : now.files) {
        while (known != before.files.end() && known->relPath < file.relPath)
            ++known;
        added += known == before.files.end() || *known != file ? 1 : 0;
    }
    if (now.uncopied.size() > before.uncopied.size())
        added += static_cast<std::int64_t>(now.uncopied.size() - before.uncopied.size());
    return added;
}

std::vector<std::string> filesystemsOf(const std::vector<std::string>& cardPaths) {
    std::vector<std::string> types;
    for (const std::string& path : cardPaths)
        types.push_back(IO::filesystemType(path));
    return types;
}

std::string stepBeforePause(const ProgressSnapshot& copy) {
    if (copy.phase == ProgressSnapshot::Phase::verify && !copy.verifyingFiles.empty())
        return copy.verifyingFiles.front();
    return copy.currentFile;
}

} // namespace

OffloadJob::OffloadJob(JobConfig config, OffloadOptions options, JobServices services)
    : config_(std::move(config)), services_(std::move(services)),
      engine_(engineOptions(config_, std::move(options)), [this](std::string_view line) { log(line); }) {
    // The engine claims the card folders as its first step, and may take other names than the plan proposed: only
    // ahead of the first file is it known what is to be locked.
    auto& before = engine_.options().beforeFileCopy;
    before = [this, next = std::move(before)](std::int64_t index) {
        if (index == 0 && locks_ == nullptr)
            foldersClaimed();
        if (next)
            next(index);
    };
}

OffloadJob::~OffloadJob() = default;

void OffloadJob::log(std::string_view line) const {
    Log log;
    {
        MutexLock lock(mutex_);
        log = log_;
    }
    if (log)
        log(line);
}

OffloadPlan OffloadJob::prepare() {
    OffloadPlan plan = engine_.prepare({config_.source, config_.destRoots, config_.cardName, config_.date});
    plan.project = config_.project;
    return plan;
}

void OffloadJob::run(const Log& log) {
    {
        MutexLock lock(mutex_);
        log_ = log;
    }
    if (engine_.isCancelled()) {
        endAs(Phase::cancelled);
        return;
    }
    try {
        openHistory(log);
        if (repair_)
            runRepair();
        else if (config_.appendInto)
            runAppend(*config_.appendInto);
        else
            runCopy();
    } catch (const SimulatedCrash&) {
        throw;
    } catch (const Cancelled&) {
        takeBackStart();
        endAs(Phase::cancelled);
    } catch (const OffloadError& error) {
        takeBackStart();
        endAs(Phase::failed, error.what(), error.code());
    } catch (const std::exception& error) {
        takeBackStart();
        endAs(Phase::failed, error.what());
    }
    locks_.reset();
    awake_.reset();
}

void OffloadJob::repairInto(std::vector<std::string> cardPaths) {
    repair_ = std::make_unique<RepairWork>(std::move(cardPaths));
}

void OffloadJob::begin(Phase phase) {
    awake_ = std::make_unique<PowerInhibitor>("Copying a card", [this](std::string_view line) { log(line); });
    if (!engine_.spaceWarnings().empty())
        addSpaceWarning(engine_.spaceWarnings().front());
    MutexLock lock(mutex_);
    state_.phase = phase;
}

// A record may be written long after the job has gone: it gets the front end's log and nothing of this object.
void OffloadJob::openHistory(const Log& log) {
    if (!services_.history)
        return;
    guardHistory([&] {
        if (const auto folder = HistoryRecorder::folder(config_, services_.supportFolder))
            history_ = std::make_unique<HistoryKeeper>(*services_.history, *folder, config_.source, log);
    });
}

void OffloadJob::addWarning(const std::string& warning) {
    MutexLock lock(mutex_);
    state_.warning = state_.warning ? *state_.warning + "\n" + warning : warning;
}

void OffloadJob::recordFinish(const OffloadReport& report, const std::optional<BackupCheck>& wholeCard) {
    if (!history_)
        return;
    const auto isDone = [](const OffloadReport::FileEntry& file) {
        return std::ranges::any_of(file.destinations,
                                   [](const std::string& s) { return s != "pending" && s != "failed"; });
    };
    guardHistory([&] {
        if (engine_.isCancelled() && std::ranges::none_of(report.files, isDone))
            history_->forget();
        else
            history_->finish(report, wholeCard ? wholeCard->covered : card_, wholeCard,
                             [this] { addWarning(std::string(Msg::historyBusy)); });
    });
}

// A run that broke off before it had claimed its card folders has left nothing that could be finished.
void OffloadJob::takeBackStart() {
    if (history_ && engine_.plan() == nullptr)
        guardHistory([&] { history_->forget(); });
}

void OffloadJob::runCopy() {
    OffloadPlan plan = prepare();
    if (engine_.isCancelled())
        throw Cancelled();
    begin(Phase::copying);
    if (history_)
        card_ = plan.scan.files;
    ReportRecorder recorder(plan.resuming);
    const SourceScan before = plan.scan;
    OffloadReport report = engine_.run(std::move(plan), recorder);
    settle(std::move(report), {}, filesAddedSince(before, scanAgain(before)));
}

void OffloadJob::runAppend(const std::vector<std::string>& cardPaths) {
    Preflight::checkInto(config_.source, cardPaths, engine_.options());
    lockFolders(cardPaths);
    const auto isCancelled = [this] { return engine_.isCancelled(); };
    AppendPlan append;
    try {
        append = AppendPlanner::plan(config_.source, cardPaths, IO::filesystemType(config_.source),
                                     filesystemsOf(cardPaths), engine_.options().chunkSize, isCancelled);
    } catch (const OffloadError& error) {
        if (error.code() != PreflightCode::nothingNew)
            throw;
        nothingNew(error, cardPaths);
        return;
    }
    checkSpace(append.toPlan());
    begin(Phase::copying);
    if (append.later > 0)
        addWarning(fmt::format("{} left for the next append: the interrupted backup has its report already.",
                               countedFiles(append.later)));
    if (history_)
        guardHistory(
            [&] { history_->reopen(append.cardPaths, [this] { addWarning(std::string(Msg::historyBusy)); }); });
    if (append.resuming)
        engine_.setBeforeRename(makingWay(append));
    ReportRecorder recorder(append.resuming, SetAside::list);
    OffloadReport report = engine_.run(append.toPlan(), recorder);
    SetAside::list(report);
    const SourceScan card = scanAgain(append.fullScan);
    settle(std::move(report), checkWholeCard(append.cardPaths, &card));
}

void OffloadJob::runRepair() {
    const std::vector<std::string>& cardPaths = repair_->cardPaths();
    if (!config_.verify)
        throw OffloadError::preflight(PreflightCode::other, std::string(Msg::repairNeedsVerify));
    Preflight::checkInto(config_.source, cardPaths, engine_.options());
    lockFolders(cardPaths);
    const auto isCancelled = [this] { return engine_.isCancelled(); };
    const std::vector<std::string> checkedPaths = RepairPlanner::checkBackup(cardPaths).paths;
    begin(Phase::copying);
    log("Reading every copy of the backup to find what is defective…");
    setExamining(true);
    const auto findings = repair_->examine(isCancelled);
    setExamining(false);
    const RepairPlan repair = RepairPlanner::plan(config_.source, checkedPaths, IO::filesystemType(config_.source),
                                                  filesystemsOf(checkedPaths), findings, isCancelled);
    checkSpace(repair.plan);
    if (history_)
        guardHistory([&] { history_->reopen(checkedPaths, [this] { addWarning(std::string(Msg::historyBusy)); }); });
    engine_.setBeforeRename(repair_->mover(repair));
    ReportRecorder recorder(true, SetAside::list);
    OffloadReport report = engine_.run(repair.plan, recorder);
    SetAside::list(report);
    settle(std::move(report), checkWholeCard(checkedPaths));
}

void OffloadJob::nothingNew(const OffloadError& error, const std::vector<std::string>& cardPaths) {
    // A run that died between the chain and the lists left them short; nothing else of it is open.
    sideBySide(cardPaths.size(), [&](std::size_t d) {
        const std::string path = RelativePath::withoutTrailingSlash(cardPaths[d]);
        return HashLists::heal(path, std::string(RelativePath::name(path)));
    });
    const BackupCheck check = checkWholeCard(cardPaths);
    // A run that died between its last record and the history left the entry open, or none: nothing else would ever
    // close it.
    if (history_ && check.newest) {
        guardHistory([&] {
            history_->take(cardPaths);
            history_->finish(*check.newest, check.covered, check,
                             [this] { addWarning(std::string(Msg::historyBusy)); });
        });
    }
    for (const std::string& line : check.messages())
        addWarning(line);
    {
        MutexLock lock(mutex_);
        state_.note = error.what();
        state_.copySucceeded = check.safeToEject();
        state_.safeToEject = check.safeToEject();
        state_.safeToFormat = check.safeToFormat();
    }
    endAs(Phase::done);
}

BackupCheck OffloadJob::checkWholeCard(const std::vector<std::string>& cardPaths, const SourceScan* card) const {
    try {
        bool localTime = FileTimes::storesLocalTime(IO::filesystemType(config_.source));
        for (const std::string& type : filesystemsOf(cardPaths))
            localTime = localTime || FileTimes::storesLocalTime(type);
        return BackupCheck::of(card != nullptr ? *card : Scanner::scan(config_.source), cardPaths, localTime);
    } catch (const std::exception& error) {
        // The run itself is over and its records stand: a card that was pulled now costs the promise, not the run.
        BackupCheck check;
        check.error = error.what();
        return check;
    }
}

// Small cards teach nothing: what a run costs beside its bytes would pass for a slow disk.
void OffloadJob::learnRates(const OffloadReport& report) {
    constexpr std::int64_t tellingBytes = 64 << 20;
    if (services_.supportFolder.empty() || engine_.isCancelled() || engine_.resumedBytes() > 0 ||
        report.totalBytes < tellingBytes)
        return;
    const std::string path = RateMemory::pathIn(services_.supportFolder);
    RateMemory rates = RateMemory::load(path);
    rates.learn(report, false, {}, {}, false, true);
    rates.save(path, [this](std::string_view line) { log(line); });
}

// A camera, or a helping hand, may write onto a card while it is copied. When the card cannot be read any more, what
// was seen of it stands.
SourceScan OffloadJob::scanAgain(const SourceScan& before) const {
    try {
        return Scanner::scan(config_.source);
    } catch (const std::exception& error) {
        log(fmt::format("the card was not looked at once more: {}", error.what()));
        return before;
    }
}

void OffloadJob::checkSpace(const OffloadPlan& plan) {
    const Preflight::Space space = Preflight::checkSpace(Preflight::demands(plan), plan.cardPaths(), {});
    if (!space.warnings.empty())
        addSpaceWarning(space.warnings.front());
}

// Told at once, while something can still be done about it, and again at the end.
void OffloadJob::addSpaceWarning(const std::string& warning) {
    log(warning);
    addWarning(warning);
}

void OffloadJob::setExamining(bool examining) {
    MutexLock lock(mutex_);
    examining_ = examining;
}

// The folders were created by this very run, so nobody can be at work in them; the locks keep appends, repairs and
// verifications of other processes out until the records stand. The history learns of the run now, not earlier: only
// now are the names of its folders certain.
void OffloadJob::foldersClaimed() {
    const auto plan = engine_.plan();
    if (plan == nullptr)
        return;
    try {
        lockFolders(plan->cardPaths());
    } catch (const std::exception& error) {
        log(fmt::format("no lock on the card folders: {}", error.what()));
    }
    if (history_)
        guardHistory([&] { history_->start(*plan, [this] { addWarning(std::string(Msg::historyBusy)); }); });
}

// The history only says where to look: nothing that goes wrong with it may cost the backup.
void OffloadJob::guardHistory(const std::function<void()>& call) const {
    try {
        call();
    } catch (const std::exception& error) {
        log(std::string("history: ") + error.what());
    }
}

void OffloadJob::lockFolders(const std::vector<std::string>& cardPaths) {
    locks_ = std::make_unique<FolderLocks>(FolderLocks::acquire(cardPaths));
}

void OffloadJob::settle(OffloadReport report, const std::optional<BackupCheck>& wholeCard, std::int64_t filesAdded) {
    const auto& problems = engine_.reportProblems();
    if (!problems.empty())
        rewriteReports(report);
    const bool recorded = problems.empty();
    const bool cardChanged = engine_.cardChanged();
    const bool copied = report.success();
    if (report.safeToFormatSeconds && (filesAdded > 0 || (wholeCard && !wholeCard->safeToFormat())))
        takeBackPromise(report, wholeCard, filesAdded);
    {
        MutexLock lock(mutex_);
        state_.copySucceeded = copied;
        state_.safeToEject = copied && recorded && !cardChanged && filesAdded == 0;
        state_.safeToFormat = state_.safeToEject && report.safeToFormat();
        if (wholeCard) {
            state_.safeToEject = state_.safeToEject && wholeCard->safeToEject();
            state_.safeToFormat = state_.safeToFormat && wholeCard->safeToFormat();
        }
        report_ = std::make_shared<const OffloadReport>(std::move(report));
    }
    for (const std::string& problem : problems)
        addWarning(problem);
    if (filesAdded > 0)
        addWarning(BackupMessage::notInBackup(filesAdded));
    if (wholeCard)
        for (const std::string& line : wholeCard->messages())
            addWarning(line);
    recordFinish(*this->report(), wholeCard);
    learnRates(*this->report());
    if (engine_.isCancelled())
        endAs(Phase::cancelled);
    else if (cardChanged)
        endAs(Phase::failed, std::string(swappedCard));
    else
        endAs(Phase::done);
}

// The report was written before the card as a whole was looked at: what it says of formatting the card must not stand
// on the disks when that is denied.
void OffloadJob::takeBackPromise(OffloadReport& report, const std::optional<BackupCheck>& wholeCard,
                                 std::int64_t filesAdded) {
    report.safeToFormatSeconds.reset();
    std::vector<std::string> notes = report.verifyNotes.value_or(std::vector<std::string>());
    if (filesAdded > 0)
        notes.push_back(BackupMessage::notInBackup(filesAdded));
    if (wholeCard)
        std::ranges::copy(wholeCard->messages(), std::back_inserter(notes));
    report.verifyNotes = std::move(notes);
    rewriteReports(report);
}

// Where the record does stand it must not promise what does not hold on the other disks.
void OffloadJob::rewriteReports(const OffloadReport& report) {
    const auto generation = report.generationNumber();
    for (const auto& destination : report.destinations) {
        try {
            if (ReportWriter::exists(destination.cardPath, generation))
                ReportWriter::writeReports(report, destination.cardPath, false);
        } catch (const std::exception& error) {
            log(fmt::format("report on {}: {}", destination.cardPath, error.what()));
        }
    }
}

void OffloadJob::endAs(Phase phase, std::optional<std::string> error, std::optional<PreflightCode> code) {
    engine_.pauses().end();
    MutexLock lock(mutex_);
    state_.phase = phase;
    state_.error = std::move(error);
    state_.errorCode = code;
}

void OffloadJob::cancel() { engine_.cancel(); }

void OffloadJob::pause() { engine_.pauses().pause(); }

void OffloadJob::resume() { engine_.pauses().resume(); }

bool OffloadJob::isPaused() const { return engine_.pauses().isPaused(); }

JobStatus OffloadJob::status() const {
    const ProgressSnapshot copy = engine_.snapshot();
    const PauseGate& gate = engine_.pauses();
    JobStatus status;
    bool examining = false;
    {
        MutexLock lock(mutex_);
        status = state_;
        examining = examining_;
    }
    if (status.phase == Phase::waiting)
        return status;
    if (examining) {
        // Before the engine has anything to do, a repair reads what lies on the disks.
        status.verifyDoneByDest = repair_->bytesRead();
        status.verifyTotalByDest = repair_->bytesTotal();
        status.verifyDone =
            std::accumulate(status.verifyDoneByDest.begin(), status.verifyDoneByDest.end(), std::int64_t{0});
        status.verifyTotal =
            std::accumulate(status.verifyTotalByDest.begin(), status.verifyTotalByDest.end(), std::int64_t{0});
        return status;
    }
    if (status.phase == Phase::copying)
        status.phase = phaseOf(copy.phase);
    status.paused = gate.isPaused();
    status.pauseHeld = gate.isHeld();
    status.pausedTotal = gate.pausedTotal();
    if (status.paused && !status.pauseHeld)
        status.pauseStep = stepBeforePause(copy);
    for (std::size_t d = 0; d < copy.verifiedBytes.size(); ++d) {
        // A run that finishes another reads back more than it copies.
        const std::int64_t total = copy.bytesToVerify[d] > 0 ? copy.bytesToVerify[d] : copy.totalBytes;
        status.verifyDoneByDest.push_back(copy.verifiedBytes[d]);
        status.verifyTotalByDest.push_back(total);
        status.verifyDone += copy.verifiedBytes[d];
        status.verifyTotal += total;
    }
    status.copy = copy;
    return status;
}

std::shared_ptr<const OffloadReport> OffloadJob::report() const {
    MutexLock lock(mutex_);
    return report_;
}

} // namespace velmora
