#include "job/OffloadJob.h"

#include "base/FileTimes.h"
#include "base/Msg.h"
#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "disks/VolumeSerial.h"
#include "engine/FolderLocks.h"
#include "engine/HeldFolders.h"
#include "job/ClipRecords.h"
#include "job/HistoryKeeper.h"
#include "job/RepairWork.h"
#include "job/ReportRebuild.h"
#include "job/SetAside.h"
#include "memory/AppendPlanner.h"
#include "memory/CaseTwins.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "reports/HashLists.h"
#include "verify/Verification.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

// The roads of a job: what is checked, locked and planned before the engine runs.
namespace velmora {

namespace {

using Phase = JobStatus::Phase;

constexpr std::string_view unsettled = "The records of the interrupted backup could not be finished.";

// Where a resumed run writes there may be a file of the killed run, or one that a person put there since. It is deleted
// only when it is empty, or has the size and time of the card's file; else it moves aside.
OffloadEngine::BeforeRename makingWay(const AppendPlan& append) {
    return [&append, twins = CaseTwins(append.fullScan.files, append.records)](std::size_t destination,
                                                                               std::size_t file, const std::string&) {
        const SourceFile& source = append.newFiles[file];
        const auto isOwnWork = [&](const FileFacts& there) {
            const bool alike = there.size == source.size && FileTimes::close(there.modified, source.mtime, false);
            return there.isFile && (there.size == 0 || alike);
        };
        SetAside::makeWay(append.cardPaths[destination], append.generation, source.relPath,
                          twins.contains(source.relPath), isOwnWork);
    };
}

std::vector<std::string> filesystemsOf(const std::vector<std::string>& cardPaths) {
    std::vector<std::string> types;
    for (const std::string& path : cardPaths)
        types.push_back(IO::filesystemType(path));
    return types;
}

// The medium below the source; none when the source is a folder of some disk, or the volume tells nothing of itself.
std::optional<CardKey> mediumOf(const std::string& source, const OffloadOptions& options) {
    if (options.cardMedium)
        return options.cardMedium(source);
    const auto volume = VolumeFacts::isVolumeRoot(source) ? cardVolumeOf(source) : std::nullopt;
    return volume && !volume->fsSerial.empty() ? std::optional(volume->key()) : std::nullopt;
}

} // namespace

void OffloadJob::runCopy() {
    OffloadPlan plan = prepare();
    plan.sourceMedium = mediumOf(config_.source, engine_.options());
    if (engine_.isCancelled())
        throw Cancelled();
    requireSameCard();
    begin(Phase::copying);
    Conclusion conclusion;
    conclusion.create = true;
    conclusion.card = plan.scan;
    deferVerification(plan);
    OffloadReport report = engine_.run(std::move(plan));
    finishRun(std::move(report), conclusion);
}

AppendPlanner::Ask OffloadJob::ask(const std::vector<std::string>& cardPaths) {
    AppendPlanner::Ask ask;
    ask.source = config_.source;
    ask.cardPaths = cardPaths;
    ask.sourceFilesystem = IO::filesystemType(config_.source);
    ask.destFilesystems = filesystemsOf(cardPaths);
    ask.blockSize = engine_.options().chunkSize;
    ask.verify = engine_.options().verify;
    ask.compareCard = compareCard_;
    ask.medium = mediumOf(config_.source, engine_.options());
    askHistory([&] { return history_->look(cardPaths, [this] { return engine_.isCancelled(); }); });
    ask.mediumInHistory = known_.medium;
    ask.pastRuns = known_.runs;
    return ask;
}

bool OffloadJob::mustStop() {
    const auto isCancelled = [this] { return engine_.isCancelled(); };
    return isCancelled() || !engine_.pauses().waitWhilePaused(isCancelled);
}

void OffloadJob::reopenHistory() {
    if (history_)
        guardHistory([&] { history_->reopen([this] { addWarning(std::string(Msg::historyBusy)); }); });
}

void OffloadJob::runAppend(const std::vector<std::string>& cardPaths) {
    requireProxySettings();
    openFolders(cardPaths);
    const AppendPlanner::Ask asked = ask(cardPaths);
    AppendPlan append;
    try {
        append = AppendPlanner::plan(asked, folders_);
        for (std::size_t n = 0; append.settle && n <= cardPaths.size(); ++n) {
            settleRecords(*append.settle, append.cardPaths);
            append = AppendPlanner::plan(asked, folders_);
        }
    } catch (const AppendPlanner::NothingNew& nothing) {
        nothingNew(nothing);
        return;
    }
    if (append.settle)
        throw OffloadError::failed(std::string(unsettled));
    requireSameCard();
    folders_.forget(); // the run takes what it needs from the plan
    checkSpace(append.toPlan());
    begin(Phase::copying);
    if (!append.sameMedium)
        requireSameContent(append);
    if (append.later > 0)
        addWarning(fmt::format("{} left for the next append: the interrupted backup has its report already.",
                               countedFiles(append.later)));
    for (const CardRecord& record : append.records)
        if (!record.generations.empty() && !record.generations.back().column && engine_.options().verify)
            addWarning(record.cardPath + " is not a folder that this backup was written to; it was copied or moved "
                                         "there. This run compares its files with the card.");
    reopenHistory();
    ClipRecords::bringInStep(append.records, [this](const std::string& path) { engine_.held()->check(path); });
    moveStrangePages(append.cardPaths, append.generation);
    for (std::size_t d = 0; d < append.leftParts.size(); ++d)
        for (const std::string& part : append.leftParts[d]) {
            engine_.held()->check(append.cardPaths[d]);
            SetAside::move(append.cardPaths[d], append.generation, part);
        }
    if (append.resuming)
        engine_.setBeforeRename(makingWay(append));
    Conclusion conclusion;
    conclusion.create = !append.resuming;
    conclusion.card = append.fullScan;
    conclusion.records = std::move(append.records);
    conclusion.elsewhere = append.elsewhere;
    conclusion.coversPart = true;
    conclusion.comparesAll = append.sameMedium || compareCard_;
    conclusion.unproved = append.unverifiedEarlier;
    interrupted_ = append.interrupted;
    OffloadPlan plan = append.toPlan();
    deferVerification(plan);
    withdrawProofs(plan);
    OffloadReport report = engine_.run(std::move(plan));
    listSetAside(report);
    finishRun(std::move(report), conclusion);
}

void OffloadJob::runRepair() {
    const std::vector<std::string>& cardPaths = repair_->cardPaths();
    if (!config_.verify)
        throw OffloadError::preflight(PreflightCode::other, std::string(Msg::repairNeedsVerify));
    openFolders(cardPaths);
    const auto isCancelled = [this] { return engine_.isCancelled(); };
    RepairPlanner::Checked checked = checkRepair(cardPaths);
    const bool settled = checked.settle.has_value();
    for (std::size_t n = 0; checked.settle && n <= cardPaths.size(); ++n) {
        settleRecords(*checked.settle, checked.backup.paths);
        checked = RepairPlanner::check(cardPaths, folders_);
    }
    if (checked.settle)
        throw OffloadError::failed(std::string(unsettled));
    begin(Phase::copying);
    log("Reading every copy of the backup to find what is defective…");
    const auto findings = repair_->examine(engine_.pauses(), isCancelled);
    const AppendPlanner::Ask asked = ask(checked.backup.paths);
    RepairPlan repair = compareWithCard(asked, checked, findings);
    requireSameCard();
    folders_.forget(); // outdated: the reading took hours, and the backup's other folders are not locked
    Conclusion conclusion;
    conclusion.create = !repair.finishes;
    conclusion.card = std::move(repair.card);
    conclusion.records = std::move(checked.backup.records);
    conclusion.elsewhere = repair.plan.elsewhere;
    conclusion.coversPart = true;
    conclusion.comparesAll = true;
    conclusion.readAll = true;
    if (repair.plan.scan.files.empty()) {
        if (settled)
            concludeNothingNew("The interrupted repair is finished — every file is good on every destination.",
                               "The interrupted repair is finished.", conclusion);
        else
            concludeNothingNew("Nothing to repair — every file is good on every destination.",
                               "Nothing to repair from this card.", conclusion);
        return;
    }
    checkSpace(repair.plan);
    reopenHistory();
    moveStrangePages(repair.plan.cardPaths(), repair.plan.generation);
    engine_.setBeforeRename(repair_->mover(repair));
    OffloadReport report = engine_.run(repair.plan);
    listSetAside(report);
    conclude(std::move(report), conclusion);
    endRun();
}

// A report that only one of the disks lost is made anew before the backup is refused for it.
RepairPlanner::Checked OffloadJob::checkRepair(const std::vector<std::string>& cardPaths) {
    try {
        return RepairPlanner::check(cardPaths, folders_);
    } catch (const OffloadError&) {
        std::vector<std::string> rebuilt;
        try {
            rebuilt = ReportRebuild::run(cardPaths, folders_,
                                         [this](const std::string& cardPath) { engine_.held()->check(cardPath); });
            folders_.forget();
        } catch (const Cancelled&) {
            throw;
        } catch (const std::exception& error) {
            log(std::string("no report was made anew: ") + error.what());
        }
        if (rebuilt.empty())
            throw;
        for (const std::string& sentence : rebuilt)
            addWarning(sentence);
    }
    return RepairPlanner::check(cardPaths, folders_);
}

// Frees the names of the run's reports, whatever a person put there.
void OffloadJob::moveStrangePages(const std::vector<std::string>& cardPaths, std::int64_t generation) {
    for (const std::string& cardPath : cardPaths) {
        engine_.held()->check(cardPath);
        SetAside::strangePages(cardPath, generation);
    }
}

// In every pause of the comparison the card may be swapped. Nothing is read of another card.
void OffloadJob::readBeforehand(const std::function<void(const IsCancelled&)>& read) {
    PauseGate& gate = engine_.pauses();
    const auto mustStop = [this, &gate, held = gate.holdCount()]() mutable {
        if (!gate.isPaused() && gate.holdCount() != held) {
            held = gate.holdCount();
            engine_.lookForOtherCard();
        }
        return engine_.isCancelled() || engine_.cardChanged();
    };
    try {
        read(mustStop);
    } catch (const Cancelled&) {
        if (!engine_.isCancelled())
            requireSameCard();
        throw;
    }
}

RepairPlan OffloadJob::compareWithCard(const AppendPlanner::Ask& asked, const RepairPlanner::Checked& checked,
                                       const std::vector<RepairPlanner::Findings>& findings) {
    RepairPlan plan;
    readBeforehand([&](const IsCancelled& mustStop) {
        plan = repair_->plan(asked, checked, findings, folders_, engine_.pauses(), mustStop);
    });
    return plan;
}

void OffloadJob::requireSameContent(const AppendPlan& append) {
    const auto isKnown = [](const FileTask& task) { return task.known && task.known->xxh64; };
    if (std::ranges::none_of(append.tasks, isKnown))
        return;
    log("Comparing the card with the backup…");
    readBeforehand(
        [&](const IsCancelled& mustStop) { comparison_.run(append, compareCard_, engine_.pauses(), mustStop); });
    requireSameCard();
}

// A plan made for one card must not be begun with another.
void OffloadJob::requireSameCard() {
    engine_.lookForOtherCard();
    if (engine_.cardChanged())
        throw OffloadError::failed("The card in the reader was swapped or removed — nothing was copied. Insert the "
                                   "original card and run the same command again.");
}

// A run that had done all its work was stopped between its last records. They are made final as they are: nothing has
// to be read or copied for that.
void OffloadJob::settleRecords(const OffloadReport& report, const std::vector<std::string>& cardPaths) {
    log(fmt::format("Finishing the records of generation {}, which an interrupted run has left.",
                    report.generationNumber()));
    moveStrangePages(cardPaths, report.generationNumber());
    Verification::Order order{cardPaths, ReportWriter::Stamp::present()};
    order.beforeWrite = [this](const std::string& cardPath) { engine_.held()->check(cardPath); };
    const auto outcome = Verification::commit(report, order, [this](std::string_view line) { log(line); });
    folders_.forget();
    if (!outcome.complete())
        throw OffloadError::failed(*outcome.warning());
}

void OffloadJob::nothingNew(const AppendPlanner::NothingNew& nothing) {
    const AppendPlan& plan = nothing.plan();
    // A run that was killed between the chain and the lists left the lists short. They are completed here.
    examine("Completing the checksum lists");
    sideBySide(plan.cardPaths.size(), [&](std::size_t d) {
        const std::string& path = plan.cardPaths[d];
        engine_.held()->check(path);
        return HashLists::heal(path, std::string(RelativePath::name(path)), *folders_.of(path).history(),
                               folders_.isCancelled());
    });
    examine({});
    ClipRecords::bringInStep(plan.records, [this](const std::string& path) { engine_.held()->check(path); });
    Conclusion conclusion;
    conclusion.card = plan.fullScan;
    conclusion.records = plan.records;
    conclusion.elsewhere = plan.elsewhere;
    conclusion.coversPart = true;
    conclusion.comparesAll = plan.sameMedium;
    conclusion.unproved = plan.unverifiedEarlier;
    concludeNothingNew(nothing.what(), "Nothing new on the card.", conclusion);
}

void OffloadJob::listSetAside(OffloadReport& report) {
    for (const std::string& problem : SetAside::list(report, [this] { return mustStop(); }))
        addWarning(problem);
}

void OffloadJob::checkSpace(const OffloadPlan& plan) {
    const Preflight::Space space = Preflight::checkSpace(Preflight::demands(plan), plan.cardPaths(), {});
    for (const std::string& warning : space.warnings)
        addSpaceWarning(warning);
}

// Told at once, while something can still be done about it, and again at the end.
void OffloadJob::addSpaceWarning(const std::string& warning) {
    log(warning);
    addWarning(warning);
}

// A full copy learns the names of its folders by claiming them: only now can they be locked and the history be told.
// The locks keep appends, repairs and verifications of other processes out until the records stand. Without them
// nothing is copied. An append and a repair have locked their folders before they read them.
void OffloadJob::foldersClaimed(const OffloadPlan& plan) {
    if (locks_)
        return;
    lockFolders(plan.cardPaths());
    if (history_)
        guardHistory([&] { history_->start(plan, [this] { addWarning(std::string(Msg::historyBusy)); }); });
}

void OffloadJob::lockFolders(const std::vector<std::string>& cardPaths) {
    locks_ = std::make_unique<FolderLocks>(FolderLocks::acquire(cardPaths));
}

// Holds the folders of an earlier backup before looking at them, so that writing goes to the folders that were read.
void OffloadJob::openFolders(const std::vector<std::string>& cardPaths) {
    std::vector<std::string> paths;
    for (const std::string& cardPath : cardPaths)
        paths.push_back(RelativePath::withoutTrailingSlash(cardPath));
    engine_.hold(paths);
    Preflight::checkInto(config_.source, cardPaths, engine_.options());
    lockFolders(cardPaths);
}

} // namespace velmora
