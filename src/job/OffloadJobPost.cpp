#include "base/FileTimes.h"
#include "base/Msg.h"
#include "base/RelativePath.h"
#include "blocks/CacheProbe.h"
#include "clips/ClipDetector.h"
#include "engine/HeldFolders.h"
#include "job/OffloadJob.h"
#include "job/PostStage.h"
#include "job/Remedy.h"
#include "platform/IO.h"
#include "proxies/ToolSearch.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "reports/ReportWriter.h"
#include "verify/Verification.h"
#include "verify/VerifyOptions.h"
#include "verify/VerifySession.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <unordered_map>
#include <utility>

// What a job does when its card lies on the disks: its clips, and the verification that rides on their renders. The
// card may leave meanwhile.
namespace velmora {

namespace {

using Phase = JobStatus::Phase;

constexpr std::string_view readBackFirst = "verification during proxies is off — verified by reading back";

// The card folders on disks that the session has given up.
std::vector<std::string> hung(const VerifySession::Outcome& outcome, const OffloadReport& report) {
    const auto isHung = [](const DestFileResult& result) { return result.error == VIPMsg::verifyDiskHung; };
    std::vector<std::string> folders;
    for (std::size_t d = 0; d < outcome.results.size(); ++d)
        if (std::ranges::any_of(outcome.results[d], isHung))
            folders.push_back(report.destinations[d].cardPath);
    return folders;
}

std::vector<ClipEntry> clipsOf(const std::vector<CardRecord>& records) {
    return records.empty() ? std::vector<ClipEntry>() : records.front().clips();
}

} // namespace

void OffloadJob::requireProxySettings() const {
    if (const auto problem = PostStage::problem(config_))
        throw OffloadError::preflight(PreflightCode::other, *problem);
}

bool OffloadJob::verifiesInProxy(const OffloadPlan& plan) const {
    if (!config_.verify || !config_.verifyInProxy || !config_.proxy.enabled || plan.mode == PlanMode::repair)
        return false;
    return ToolSearch::resolved(config_.tools).ffmpeg && !ClipDetector::detect(plan.scan.files).empty();
}

void OffloadJob::deferVerification(const OffloadPlan& plan) {
    const bool defers = verifiesInProxy(plan);
    engine_.options().deferVerify = defers;
    MutexLock lock(mutex_);
    state_.verifyInProxy = defers;
}

std::shared_ptr<VerifySession> OffloadJob::session() const {
    MutexLock lock(mutex_);
    return session_;
}

void OffloadJob::finishRun(OffloadReport report, Conclusion& conclusion) {
    const auto worker = engine_.pauses().work();
    std::vector<ClipEntry> earlier = clipsOf(conclusion.records);
    if (interrupted_)
        report.clips = interrupted_->clips; // what it found of the clips stays known
    if (engine_.isCancelled())
        report.verifyPending.reset(); // nobody will read the copies in this run
    if (report.verifyPending.value_or(false)) {
        release(report, conclusion);
        startVerification(report);
        workOnClips(report, std::move(earlier), *worker);
        finishVerification(std::move(report), conclusion, *worker);
    } else {
        conclude(std::move(report), conclusion);
        OffloadReport now = *this->report();
        workOnClips(now, std::move(earlier), *worker);
    }
    endRun();
}

// Writes the report of the copy, marked as not verified yet. When it stands on every disk and nothing else denies it,
// the card may leave. Nothing is said yet about formatting.
void OffloadJob::release(OffloadReport& report, const Conclusion& conclusion) {
    takeOverProved(report);
    for (const auto& destination : report.destinations)
        recorded_.push_back(destination.cardPath);
    const bool stands = layReport(report, conclusion.create);
    Conclusion sofar = conclusion;
    const auto here = this->report();
    for (CardRecord& record : sofar.records)
        record.add(here);
    Promises::Evidence evidence = gather(sofar, here.get());
    evidence.pending = true;
    if (!stands)
        evidence.problems.emplace_back("The report could not be written on every disk.");
    addLastLook(evidence);
    const Promises::Verdict verdict = Promises::judge(evidence);
    released_ = verdict.safeToEject;
    recordFinish(*here, evidence, sofar, verdict);
    {
        MutexLock lock(mutex_);
        state_.copySucceeded = here->success();
    }
    tell(verdict.safeToEject ? Promises::Verdict{true, false, false, {}} : verdict, remedyOf(evidence, here.get()));
}

// Takes over what the interrupted run had read back, if the copy looks as it did then and nobody has written to it
// since. Not if somebody has since found a copy in these folders bad, or the history has gaps.
void OffloadJob::takeOverProved(OffloadReport& report) const {
    if (!interrupted_ || !known_.failedVerifications.empty() || !known_.gaps.empty())
        return;
    std::unordered_map<std::string_view, const OffloadReport::FileEntry*> before;
    for (const auto& file : interrupted_->files)
        before.emplace(file.path, &file);
    for (std::size_t d = 0; d < report.destinations.size(); ++d) {
        const auto& destination = report.destinations[d];
        const auto column = CardRecord::columnOf(*interrupted_, destination.cardPath, destination.volumeSerial);
        if (!column || !interrupted_->destinations[*column].flushed.value_or(true))
            continue;
        const bool local = FileTimes::storesLocalTime(destination.filesystem);
        for (auto& file : report.files) {
            const auto found = before.find(file.path);
            if (found == before.end() || file.destinations[d] != "written" || file.sourceError)
                continue;
            const auto& old = *found->second;
            const bool rewritten = file.rewritten && (*file.rewritten)[d];
            if (rewritten || old.destinations[*column] != "verified" || !file.xxh64 || old.xxh64 != file.xxh64 ||
                old.size != file.size)
                continue;
            try {
                const FileFacts there = IO::stat(destination.cardPath + "/" + file.path);
                const bool isUntouched =
                    there.changed.seconds <= interrupted_->copyFinished.seconds; // reports keep whole seconds
                if (isUntouched && there.isFile && there.size == file.size &&
                    FileTimes::close(there.modified, file.modified, local))
                    file.destinations[d] = "verified";
            } catch (const IOError&) {
                // The verification will find it.
            }
        }
    }
    report.countFiles();
}

// A copy that is written anew is not the one that was read back. In case this run dies as well, the reports on all
// disks stop calling it verified before the first byte is written.
void OffloadJob::withdrawProofs(const OffloadPlan& plan) {
    if (!interrupted_ || plan.tasks.empty())
        return;
    OffloadReport report = *interrupted_;
    std::unordered_map<std::string_view, OffloadReport::FileEntry*> entries;
    for (auto& file : report.files)
        entries.emplace(file.path, &file);
    bool withdrawn = false;
    for (std::size_t i = 0; i < plan.scan.files.size(); ++i) {
        const auto found = entries.find(plan.scan.files[i].relPath);
        if (found == entries.end())
            continue;
        const std::size_t disks = plan.cardPaths().size();
        bool writes = false;
        for (std::size_t d = 0; d < disks; ++d)
            writes = writes || plan.task(i).writesTo(d);
        for (std::string& state : found->second->destinations)
            if (writes && state == "verified") {
                state = "written";
                withdrawn = true;
            }
    }
    if (!withdrawn)
        return;
    report.finished = Timestamp::now(); // it is the newest now, whatever disk is asked
    report.verifyPending = true;
    report.verified = false;
    report.countFiles();
    const ReportWriter::Pages pages(report);
    for (const std::string& cardPath : plan.cardPaths()) {
        engine_.held()->check(cardPath);
        pages.write(cardPath, false);
    }
    interrupted_ = std::make_shared<const OffloadReport>(std::move(report));
}

void OffloadJob::startVerification(const OffloadReport& report) {
    VerifySession::Inputs inputs;
    for (const auto& destination : report.destinations) {
        inputs.cardPaths.push_back(destination.cardPath);
        std::optional<std::string>& why = inputs.classicWhy.emplace_back();
        try {
            engine_.held()->check(destination.cardPath);
            why = config_.verifyInProxy ? CacheProbe::problem(destination.cardPath) : std::string(readBackFirst);
        } catch (const std::exception& error) {
            why = error.what();
        }
    }
    inputs.blocks = engine_.fileBlocks();
    inputs.blockSize = engine_.options().chunkSize;
    inputs.rates = engine_.writeRates();
    inputs.preferred =
        VerifyOptions::primaryIndex(config_.verifyPrimary, config_.primaryDestination, inputs.cardPaths.size());
    inputs.cardBlock = [this](std::size_t file, std::int64_t block) { return engine_.readCardBlock(file, block); };
    inputs.check = [held = engine_.held()](const std::string& cardPath) { held->check(cardPath); };
    const auto session = std::make_shared<VerifySession>(report, std::move(inputs), engine_.pauses());
    {
        MutexLock lock(mutex_);
        session_ = session;
    }
    session->startBackground();
}

// Nothing here changes a promise, and nothing that goes wrong here may keep the copies from being verified.
void OffloadJob::workOnClips(OffloadReport& report, std::vector<ClipEntry> earlier, PauseGate::Worker& worker) {
    if (!PostStage::isWanted(config_) || engine_.isCancelled() || engine_.cardChanged())
        return;
    const auto start = std::chrono::steady_clock::now();
    const double paused = engine_.pauses().pausedTotal();
    const auto plan = engine_.plan();
    const auto session = this->session();
    PostStage::World world{config_,
                           *plan,
                           worker,
                           session.get(),
                           [this] { return engine_.isCancelled(); },
                           [this](std::string_view line) { log(line); },
                           [this](const std::string& cardPath) { engine_.held()->check(cardPath); },
                           [this](const std::function<void(JobStatus&)>& change) {
                               MutexLock lock(mutex_);
                               change(state_);
                           },
                           [this](OffloadReport& now) { layReport(now); },
                           std::move(earlier),
                           interrupted_ ? interrupted_->clips : std::vector<ClipEntry>()};
    try {
        PostStage(std::move(world)).run(report);
    } catch (const SimulatedCrash&) {
        throw;
    } catch (const std::exception& error) {
        addWarning(std::string("The clips were not worked on to their end: ") + error.what());
    }
    if (!engine_.isCancelled())
        postSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() -
                       (engine_.pauses().pausedTotal() - paused);
    const auto defects = PostStage::defectsText(static_cast<std::int64_t>(report.contentWarnings().size()));
    MutexLock lock(mutex_);
    if (defects)
        state_.note = state_.note ? *state_.note + " " + *defects : *defects;
}

void OffloadJob::finishVerification(OffloadReport report, Conclusion& conclusion, PauseGate::Worker& worker) {
    {
        MutexLock lock(mutex_);
        state_.phase = Phase::finishingVerification;
        state_.clipName.clear();
    }
    log("Finishing verification");
    const auto session = this->session();
    const double pausedBefore = engine_.pauses().pausedTotal();
    VerifySession::Outcome outcome = session->finish(&worker, [this] { return engine_.isCancelled(); });
    session->close();
    // The result goes to every disk or to none. A later run that finds a missing disk again proves its copies.
    std::vector<std::string> gone;
    for (const std::string& cardPath : hung(outcome, report)) { // not asked again: it would hang again
        std::erase(recorded_, cardPath);
        gone.push_back(fmt::format("{}: {}", cardPath, VIPMsg::verifyDiskHung));
    }
    if (gone.empty())
        gone = engine_.held()->problems();
    outcome.verified = outcome.verified && gone.empty();
    session->record(outcome, report);
    report.countFiles();
    report.finished = Timestamp::now();
    if (const double paused = engine_.pauses().pausedTotal() - pausedBefore; paused > 0)
        report.verifyPausedSeconds = paused;
    if (!outcome.verified) {
        leaveUnfinished(report, gone);
        return;
    }
    conclusion.create = false;
    conclude(std::move(report), conclusion);
}

// The reports stay provisional. They say what is proved by now, for a later run that goes on from here.
void OffloadJob::leaveUnfinished(OffloadReport& report, const std::vector<std::string>& gone) {
    layReport(report);
    MutexLock lock(mutex_);
    state_.remedy = Remedy::append;
    if (gone.empty())
        return;
    Verification::Outcome outcome;
    outcome.failures.push_back({0, report.destinations.front().cardPath, gone.front()});
    state_.addWarning(*outcome.warning());
}

// Writes the report where this run has records; other folders may hold another run's. False when a write failed.
bool OffloadJob::layReport(OffloadReport& report, bool create) {
    if (const auto session = this->session(); session && report.verifyPending.value_or(false)) {
        session->record(session->soFar(), report);
        report.countFiles();
    }
    const ReportWriter::Pages pages(report);
    bool stands = true;
    std::erase_if(recorded_, [&](const std::string& cardPath) {
        try {
            engine_.held()->check(cardPath);
            pages.write(cardPath, create);
            return false;
        } catch (const std::exception& error) {
            log(cardPath + ": " + error.what());
            addWarning(Msg::reportNotWritten(error.what()));
            stands = false;
            return create;
        }
    });
    MutexLock lock(mutex_);
    report_ = std::make_shared<const OffloadReport>(report);
    return stands;
}

} // namespace velmora
