#include "job/OffloadJob.h"

#include "base/FileTimes.h"
#include "base/Msg.h"
#include "base/Product.h"
#include "base/Text.h"
#include "disks/SpacePlanner.h"
#include "engine/HeldFolders.h"
#include "engine/Scanner.h"
#include "job/HistoryKeeper.h"
#include "job/RateMemory.h"
#include "job/Remedy.h"
#include "memory/BackupCheck.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"
#include "verify/Verification.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

// The end of a job: what it has found out is judged, recorded on every disk and told to the history.
namespace velmora {

namespace {

using Phase = JobStatus::Phase;

constexpr std::string_view swappedCard =
    "The card in the reader was swapped or removed during the pause — the remaining files were not copied. Insert the "
    "original card and append to the backup.";

constexpr std::string_view swappedUnpaused =
    "The card in the reader was swapped or removed — the remaining files were not copied. Insert the original card and "
    "append to the backup.";

// For a card that was swapped after everything was read, or when nothing had to be read.
std::string swappedAfterwards(const std::string& done, const std::string& cardName) {
    return fmt::format("{}, but another card is in the reader now, or none. Insert {} again and append to the backup: "
                       "that tells whether it can be formatted.",
                       done, cardName);
}

// A swap between files leaves the other files unread. A swap later takes only the promise.
std::string swappedText(const OffloadReport& report, bool wasPaused) {
    if (std::ranges::any_of(report.files, [](const auto& file) { return file.sourceError == SourceCard::changed; }))
        return std::string(wasPaused ? swappedCard : swappedUnpaused);
    const auto failed = static_cast<std::int64_t>(report.failedFiles().size());
    if (failed == 0)
        return swappedAfterwards(fmt::format("All files of {} were copied", report.cardName), report.cardName);
    return fmt::format("{} of {} failed, and another card is in the reader now, or none. Insert {} again and run "
                       "Repair ({} repair).",
                       countedFiles(failed), report.cardName, report.cardName, Product::cli);
}

// What is on the card now and was not there, or not so, in the scan that the copy was made from.
void addNews(const SourceScan& before, const SourceScan& now, Promises::Evidence& evidence) {
    auto known = before.files.begin(); // both lists are sorted by path
    for (const SourceFile& file : now.files) {
        while (known != before.files.end() && known->relPath < file.relPath)
            ++known;
        if (known == before.files.end() || known->relPath != file.relPath)
            ++evidence.filesAdded;
        else if (*known != file)
            evidence.changed.push_back(file.relPath);
    }
    if (now.uncopied.size() > before.uncopied.size())
        evidence.filesAdded += static_cast<std::int64_t>(now.uncopied.size() - before.uncopied.size());
}

HistoryRecords::Verdict forHistory(const Promises::Verdict& verdict) {
    return {verdict.verified, verdict.safeToEject, verdict.safeToFormat};
}

// False for a folder that is away: whoever reads it reports that.
bool storesLocalTime(const std::string& path) try {
    return FileTimes::storesLocalTime(IO::filesystemType(path));
} catch (const IOError&) {
    return false;
}

bool storesLocalTime(const std::vector<CardRecord>& records) {
    return std::ranges::any_of(records, [](const auto& record) { return storesLocalTime(record.cardPath); });
}

// Every file that the records of a folder name was read back by this run and is good there.
bool provedBy(const CardRecord& record, const OffloadReport& report) {
    const auto isProved = [&](const auto& entry) {
        const RecordedFile& recorded = entry.second;
        return recorded.generation == report.generationNumber() && record.statusOf(recorded) == "verified" &&
               !recorded.file->sourceError;
    };
    return std::ranges::all_of(record.files, isProved) && std::ranges::all_of(record.twins, isProved);
}

} // namespace

// The folders in which this run has found every file good, and of which the history knows, or may have known, worse.
std::vector<HistoryVerification> OffloadJob::passed(const Conclusion& conclusion, const OffloadReport* report) const {
    std::vector<HistoryVerification> folders;
    const auto add = [&](const std::string& cardPath, const std::optional<std::string>& volumeSerial) {
        if (known_.failedVerifications.contains(cardPath) || !known_.gaps.empty())
            folders.push_back({cardPath, volumeSerial, Timestamp::now(), {}, {}});
    };
    if (!conclusion.coversPart && report != nullptr && report->verified && report->success())
        for (const auto& destination : report->destinations)
            add(destination.cardPath, destination.volumeSerial);
    for (const CardRecord& record : conclusion.records) {
        const bool good = conclusion.readAll ? report == nullptr || report->success()
                                             : report != nullptr && provedBy(record, *report);
        if (good)
            add(record.cardPath, record.volumeSerial);
    }
    return folders;
}

// The card is scanned once more, since a camera or a person may write onto it during the copy. Not after a cancel, and
// not when another card is in the reader, whose files nobody has asked for. The card's identity is checked before and
// after the scan, because nothing tells this program of a swap. A card that was released is scanned again if it is
// still there; when it has left, the earlier scan counts.
OffloadJob::CardLook OffloadJob::lookAtCard() {
    CardLook look;
    look.localTime = storesLocalTime(config_.source);
    const auto isThere = [&] {
        if (released_)
            return engine_.cardIsThere();
        engine_.lookForOtherCard();
        return !engine_.cardChanged();
    };
    if (isThere() && !engine_.isCancelled()) {
        try {
            SourceScan now = Scanner::scan(config_.source, [this] { return engine_.isCancelled(); });
            look.seen = isThere();
            if (look.seen)
                look.now = std::move(now);
        } catch (const Cancelled&) {
            log("the card was not looked at once more: cancelled");
        } catch (const std::exception& error) {
            if (isThere())
                look.error = error.what();
        }
    }
    if (released_ && !look.seen && !look.error)
        return look_; // it has left, or the look was cancelled
    look.swapped = !released_ && engine_.cardChanged();
    return look;
}

Promises::Evidence OffloadJob::gather(const Conclusion& conclusion, const OffloadReport* report) {
    Promises::Evidence evidence;
    evidence.ran = true;
    evidence.readBack = report == nullptr || report->verified;
    evidence.failedFiles = report == nullptr ? 0 : static_cast<std::int64_t>(report->failedFiles().size());
    evidence.problems = engine_.reportProblems();
    evidence.onOtherVolume = sourceVolume_ && engine_.held() != nullptr && engine_.held()->anyOffVolume(*sourceVolume_);
    auto failedBefore = known_.failedVerifications;
    for (const HistoryVerification& folder : passed(conclusion, report))
        failedBefore.erase(folder.cardPath);
    for (auto& [cardPath, sentence] : failedBefore)
        evidence.failedVerifications.push_back(std::move(sentence));
    look_ = lookAtCard();
    evidence.cardSeen = look_.seen;
    evidence.cardSwapped = look_.swapped;
    evidence.cardError = look_.error;
    const SourceScan& card = look_.now ? *look_.now : conclusion.card;
    if (!conclusion.coversPart) {
        evidence.failedVerifications.clear(); // they are about what lay in these folders before
        addNews(conclusion.card, card, evidence);
        return evidence;
    }
    const auto generation = report == nullptr ? std::nullopt : std::optional(report->generationNumber());
    try {
        // After a cancel the backup is judged all the same, so fresh states without the cancel are used.
        evidence.whole = BackupCheck::of(card, conclusion.records, conclusion.elsewhere, generation,
                                         look_.localTime || storesLocalTime(conclusion.records),
                                         engine_.isCancelled() ? FolderStates() : folders_);
    } catch (const std::exception& error) {
        evidence.whole.emplace().error = error.what();
    }
    if (!conclusion.readAll)
        evidence.forgotten = known_.forgotten(conclusion.records, evidence.whole->lastRead);
    try {
        if (history_)
            std::ranges::move(history_->against(conclusion.elsewhere, evidence.whole->alsoRead),
                              std::back_inserter(evidence.whole->elsewhere));
    } catch (const std::exception& error) { // what cannot be read may hold a failure
        evidence.whole->elsewhere.push_back(BackupMessage::unreadable(error.what()));
    }
    for (const std::string& cardPath : evidence.whole->alsoIn)
        evidence.onOtherVolume =
            evidence.onOtherVolume || (sourceVolume_ && SpacePlanner::volumeKey(cardPath) != *sourceVolume_);
    auto& unverified = evidence.whole->state.unverified;
    unverified = std::max(unverified, conclusion.unproved);
    if (!conclusion.comparesAll) {
        evidence.notCompared = evidence.whole->ofEarlierRuns;
        evidence.compareCommand = compareCommand_;
    }
    return evidence;
}

void OffloadJob::conclude(OffloadReport built, Conclusion& conclusion) {
    Promises::Evidence evidence;
    Promises::Verdict verdict;
    Verification::Order order;
    for (const auto& destination : built.destinations)
        order.cardPaths.push_back(destination.cardPath);
    if (!conclusion.coversPart) {
        askHistory([&] { return history_->glance(order.cardPaths); });
        for (const std::string& loss : known_.losses())
            addWarning(loss);
    }
    order.stamp = ReportWriter::Stamp::present();
    order.create = conclusion.create;
    order.beforeWrite = [this, wasLaid = session() != nullptr, laid = recorded_](const std::string& cardPath) {
        engine_.held()->check(cardPath);
        if (wasLaid && std::ranges::find(laid, cardPath) == laid.end()) // there may be the records of another run
            throw OffloadError::failed("the report of the copy does not stand there");
    };
    const auto addProblems = [&](const std::vector<Verification::Failure>& failures) {
        for (const auto& failure : failures)
            if (const std::string text = Msg::reportNotWritten(failure.error);
                std::ranges::find(evidence.problems, text) == evidence.problems.end())
                evidence.problems.push_back(text);
    };
    order.judge = [&](OffloadReport& report, const std::vector<Verification::Failure>& failures) {
        const auto here = std::make_shared<const OffloadReport>(report);
        for (CardRecord& record : conclusion.records)
            record.add(here);
        evidence = gather(conclusion, &report);
        addProblems(failures);
        verdict = Promises::judge(evidence);
        if (verdict.safeToFormat) {
            report.safeToFormatSeconds = secondsBetween(report.started, Timestamp::now());
            return;
        }
        auto& notes = report.verifyNotes ? *report.verifyNotes : report.verifyNotes.emplace();
        std::ranges::copy(verdict.reasons, std::back_inserter(notes));
    };
    order.stands = [this] { return engine_.held()->problems().empty(); };
    Verification::Outcome outcome =
        Verification::commit(std::move(built), order, [this](std::string_view line) { log(line); });
    addProblems(outcome.failures);
    addLastLook(evidence);
    verdict = Promises::judge(evidence);

    const auto report = std::make_shared<const OffloadReport>(std::move(outcome.report));
    {
        MutexLock lock(mutex_);
        state_.copySucceeded = report->success();
        report_ = report;
    }
    // The warning about the failed commit names the cause already, so that reason is not told twice.
    if (!outcome.complete() && report->verified) {
        std::erase(verdict.reasons, Msg::reportNotWritten(outcome.failures.front().error));
        addWarning(*outcome.warning());
    }
    tell(verdict, remedyOf(evidence, report.get()));
    recordFinish(*report, evidence, conclusion, verdict);
    recorded_ = std::move(order.cardPaths);
    for (const auto& failure : outcome.failures)
        std::erase(recorded_, failure.cardPath);
}

void OffloadJob::endRun() {
    const auto report = this->report();
    learnRates(*report);
    if (engine_.isCancelled())
        endAs(Phase::cancelled);
    else if (engine_.cardChanged())
        endAs(Phase::failed, swappedText(*report, engine_.pauses().holdCount() > 0));
    else
        endAs(Phase::done);
}

void OffloadJob::concludeNothingNew(std::string_view note, std::string_view otherwise, Conclusion& conclusion) {
    Promises::Evidence evidence = gather(conclusion, nullptr);
    addLastLook(evidence);
    const Promises::Verdict verdict = Promises::judge(evidence);
    const BackupCheck& check = *evidence.whole;
    // A run that was killed between its last record and the history left the entry open, or none. It is closed here. A
    // card that may be another one is not entered.
    if (history_ && check.newest && evidence.notCompared == 0)
        guardHistory([&] {
            history_->finish(*check.newest, check.covered, check, forHistory(verdict),
                             [this] { addWarning(std::string(Msg::historyBusy)); });
        });
    if (history_ && evidence.problems.empty())
        guardHistory([&] { tellPassed(conclusion, nullptr); });
    const bool whole = !check.error && check.failedFiles == 0 && check.state.failed == 0 && check.notInBackup == 0 &&
                       evidence.failedVerifications.empty();
    {
        MutexLock lock(mutex_);
        state_.note = whole ? note : otherwise;
        if (conclusion.readAll)
            *state_.note += " Every copy was read just now.";
        else if (check.lastRead)
            *state_.note +=
                fmt::format(" The copies were last read on {}.",
                            TimeText::local(std::max(*check.lastRead, known_.lastClean.value_or(*check.lastRead)),
                                            "%Y-%m-%d %H:%M"));
        state_.copySucceeded = verdict.safeToEject;
    }
    tell(verdict, remedyOf(evidence, nullptr));
    if (engine_.isCancelled())
        endAs(Phase::cancelled);
    else if (engine_.cardChanged())
        endAs(Phase::failed,
              swappedAfterwards("The backup was looked at", check.newest ? check.newest->cardName : "the card"));
    else
        endAs(Phase::done);
}

// Checks the disks, and a card that was not released, once more after all is written: the verdict is about now.
void OffloadJob::addLastLook(Promises::Evidence& evidence) {
    for (const std::string& problem : engine_.held()->problems())
        if (std::ranges::none_of(evidence.problems, [&](const auto& each) { return each.find(problem) != each.npos; }))
            evidence.problems.push_back(problem);
    if (released_)
        return;
    engine_.lookForOtherCard();
    evidence.cardSwapped = engine_.cardChanged();
}

void OffloadJob::tell(const Promises::Verdict& verdict, Remedy remedy) {
    for (const std::string& reason : verdict.reasons)
        addWarning(reason);
    MutexLock lock(mutex_);
    // What was said stays said, unless the copies turned out bad since: then the card is the only good one.
    state_.safeToEject = verdict.safeToEject || (state_.safeToEject && !needsCard(remedy));
    state_.safeToFormat = verdict.safeToFormat;
    state_.remedy = remedy;
}

// Without this the history would go on denying promises for copies that are good now.
void OffloadJob::tellPassed(const Conclusion& conclusion, const OffloadReport* report) {
    history_->passed(
        passed(conclusion, report), [this] { addWarning(std::string(Msg::historyBusy)); },
        [this](const std::string& sentence) { addWarning(sentence); });
}

void OffloadJob::recordFinish(const OffloadReport& report, const Promises::Evidence& evidence,
                              const Conclusion& conclusion, const Promises::Verdict& verdict) {
    if (!history_)
        return;
    const std::optional<BackupCheck>& wholeCard = evidence.whole;
    const auto isDone = [](const OffloadReport::FileEntry& file) {
        return std::ranges::any_of(file.destinations,
                                   [](const std::string& s) { return s != "pending" && s != "failed"; });
    };
    guardHistory([&] {
        if (engine_.isCancelled() && std::ranges::none_of(report.files, isDone))
            history_->forget();
        else
            history_->finish(report, wholeCard ? wholeCard->covered : conclusion.card.files, wholeCard,
                             forHistory(verdict), [this] { addWarning(std::string(Msg::historyBusy)); });
        if (evidence.problems.empty())
            tellPassed(conclusion, &report);
    });
}

void OffloadJob::learnRates(const OffloadReport& report) {
    if (services_.supportFolder.empty() || engine_.isCancelled() || engine_.resumedBytes() > 0)
        return;
    const ProgressSnapshot moved = engine_.snapshot();
    const std::string path = RateMemory::pathIn(services_.supportFolder);
    RateMemory rates = RateMemory::load(path);
    rates.learn(report, moved, config_.analyzeClips,
                config_.proxy.enabled ? std::optional(config_.proxy.codec) : std::nullopt, postSeconds_, false, true);
    rates.save(path, [this](std::string_view line) { log(line); });
}

} // namespace velmora
