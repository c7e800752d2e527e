#include "job/OffloadJob.h"

#include "base/Msg.h"
#include "disks/CardIdentity.h"
#include "disks/SpacePlanner.h"
#include "engine/FolderLocks.h"
#include "job/HistoryKeeper.h"
#include "job/PostStage.h"
#include "job/RepairWork.h"
#include "platform/IO.h"
#include "platform/PowerInhibitor.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "verify/VerifySession.h"

#include <limits>
#include <numeric>
#include <utility>

// The job as others see it: its beginning, its status, its end. OffloadJobRoads.cpp has the roads of a copy, an append
// and a repair, OffloadJobEnd.cpp what is recorded and promised.
namespace velmora {

namespace {

using Phase = JobStatus::Phase;

// A number that is too large is cut to one that is still too large: the preflight refuses it, and nothing overflows.
std::int64_t blockBytes(std::int64_t mebibytes) {
    constexpr std::int64_t mebibyte = 1 << 20;
    return mebibytes > std::numeric_limits<std::int64_t>::max() / mebibyte || mebibytes < 0
               ? std::numeric_limits<std::int64_t>::max()
               : mebibytes * mebibyte;
}

std::optional<std::string> volumeOf(const std::string& path) try {
    IO::stat(path);
    return SpacePlanner::volumeKey(path);
} catch (const IOError&) { // the preflight says what is wrong
    return std::nullopt;
}

OffloadOptions engineOptions(const JobConfig& config, OffloadOptions options) {
    options.chunkSize = blockBytes(config.chunkMB);
    options.bufferCount = config.buffers;
    options.verify = config.verify;
    options.allowSameDevice = config.allowSameDevice;
    return options;
}

Preflight::Inputs inputsOf(const JobConfig& config) {
    return {config.source, config.destRoots, config.cardName, config.date};
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

std::int64_t sum(const std::vector<std::int64_t>& values) {
    return std::accumulate(values.begin(), values.end(), std::int64_t{0});
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
    engine_.setAfterClaim([this](const OffloadPlan& plan) { foldersClaimed(plan); });
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

void OffloadJob::useListing(SourceScan listing, std::string identity) {
    listing_.emplace(std::move(listing), std::move(identity));
}

void OffloadJob::checkInputs(const JobConfig& config, const OffloadOptions& options) {
    Preflight::checkInputs(inputsOf(config), engineOptions(config, options));
}

OffloadPlan OffloadJob::prepare() {
    Preflight::Inputs inputs = inputsOf(config_);
    if (listing_ && CardIdentity::momentary(config_.source) == listing_->second)
        inputs.listing = std::move(listing_->first);
    listing_.reset();
    requireProxySettings();
    OffloadPlan plan =
        engine_.prepare(inputs, [this](const SourceScan& scan) { return PostStage::spaceFor(config_, scan); });
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
        awake_ = std::make_unique<PowerInhibitor>("Copying a card", [this](std::string_view line) { this->log(line); });
        engine_.meetCard(config_.source);
        sourceVolume_ = volumeOf(config_.source);
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
    if (const auto session = this->session()) // it is still open after a run that broke off
        session->close();
    locks_.reset();
    awake_.reset();
}

void OffloadJob::repairInto(std::vector<std::string> cardPaths) {
    repair_ = std::make_unique<RepairWork>(std::move(cardPaths));
}

void OffloadJob::begin(Phase phase) {
    for (const std::string& warning : engine_.spaceWarnings())
        addSpaceWarning(warning);
    MutexLock lock(mutex_);
    state_.phase = phase;
}

// A record may be written long after the job has gone: it gets the front end's log and nothing of this object.
void OffloadJob::openHistory(const Log& log) {
    if (!services_.history)
        return;
    try {
        history_ = std::make_unique<HistoryKeeper>(*services_.history,
                                                   HistoryRecorder::folder(config_, services_.supportFolder),
                                                   config_.recordHistory, config_.source, log);
    } catch (const std::exception& error) {
        loseHistory(error);
    }
}

void OffloadJob::addWarning(const std::string& warning) {
    MutexLock lock(mutex_);
    state_.addWarning(warning);
}

// A run that broke off before its first file has left nothing that could be finished.
void OffloadJob::takeBackStart() {
    if (history_ && engine_.plan() == nullptr)
        guardHistory([&] { engine_.isCancelled() ? history_->forget() : history_->failed(); });
}

// A history that cannot be read may hold a failure of this backup: that denies.
void OffloadJob::askHistory(const std::function<HistoryKeeper::Known()>& question) {
    if (!history_)
        return;
    try {
        known_ = question();
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception& error) {
        loseHistory(error);
    }
}

void OffloadJob::loseHistory(const std::exception& error) {
    constexpr Timestamp never{std::numeric_limits<std::int64_t>::max(), 0};
    known_.gaps.push_back({HistoryRecorder::folder(config_, services_.supportFolder), never, error.what()});
}

// The history is only an aid: an error in it must not cost the backup.
void OffloadJob::guardHistory(const std::function<void()>& call) const {
    try {
        call();
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception& error) {
        log(std::string("history: ") + error.what());
    }
}

// A step of the job's own that has no numbers to show.
void OffloadJob::examine(std::optional<std::string> what) {
    MutexLock lock(mutex_);
    state_.examining = std::move(what);
}

void OffloadJob::endAs(Phase phase, std::optional<std::string> error, std::optional<PreflightCode> code) {
    engine_.pauses().end();
    MutexLock lock(mutex_);
    state_.phase = phase;
    state_.examining.reset();
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
    std::shared_ptr<VerifySession> session;
    {
        MutexLock lock(mutex_);
        status = state_;
        session = session_;
    }
    status.paused = gate.isPaused();
    status.pauseHeld = gate.isHeld();
    status.pausedTotal = gate.pausedTotal();
    if ((repair_ && repair_->describe(status)) || comparison_.describe(status))
        return status; // the engine has nothing to do yet
    if (status.phase == Phase::waiting) {
        if (status.paused)
            status.pauseStep = "the check of the card and the disks";
        return status;
    }
    if (status.phase == Phase::copying)
        status.phase = phaseOf(copy.phase);
    if (status.paused && !status.pauseHeld)
        status.pauseStep = status.clipName.empty() ? stepBeforePause(copy) : status.clipName;
    for (std::size_t d = 0; d < copy.verifiedBytes.size(); ++d) {
        // A run that finishes another reads back more than it copies; how much is known when the read-back begins.
        const std::int64_t total = status.phase < Phase::verifying ? copy.totalBytes : copy.bytesToVerify[d];
        status.verifyDoneByDest.push_back(copy.verifiedBytes[d]);
        status.verifyTotalByDest.push_back(total);
        status.verifyDone += copy.verifiedBytes[d];
        status.verifyTotal += total;
    }
    status.copy = copy;
    if (session) {
        status.verifyDoneByDest = session->verifiedBytes();
        status.verifyTotalByDest = session->bytesToVerify();
        status.verifyDone = sum(status.verifyDoneByDest);
        status.verifyTotal = sum(status.verifyTotalByDest);
    }
    return status;
}

std::shared_ptr<const OffloadReport> OffloadJob::report() const {
    MutexLock lock(mutex_);
    return report_;
}

} // namespace velmora
