#include "job/OffloadJob.h"

#include "engine/FolderLocks.h"
#include "job/ReportRecorder.h"
#include "platform/PowerInhibitor.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

#include <fmt/format.h>
#include <limits>
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

std::string stepBeforePause(const ProgressSnapshot& copy) {
    if (copy.phase == ProgressSnapshot::Phase::verify && !copy.verifyingFiles.empty())
        return copy.verifyingFiles.front();
    return copy.currentFile;
}

} // namespace

OffloadJob::OffloadJob(JobConfig config, OffloadOptions options)
    : config_(std::move(config)),
      engine_(engineOptions(config_, std::move(options)), [this](std::string_view line) { log(line); }) {
    // The engine claims the card folders as its first step, and may take other names than the plan proposed: only
    // ahead of the first file is it known what is to be locked.
    auto& before = engine_.options().beforeFileCopy;
    before = [this, next = std::move(before)](std::int64_t index) {
        if (locks_ == nullptr)
            lockFolders();
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
    const PowerInhibitor awake("Copying a card", log);
    try {
        runCopy();
    } catch (const SimulatedCrash&) {
        throw;
    } catch (const Cancelled&) {
        endAs(Phase::cancelled);
    } catch (const OffloadError& error) {
        endAs(Phase::failed, error.what(), error.code());
    } catch (const std::exception& error) {
        endAs(Phase::failed, error.what());
    }
    locks_.reset();
}

void OffloadJob::runCopy() {
    OffloadPlan plan = prepare();
    if (engine_.isCancelled())
        throw Cancelled();
    const bool resuming = plan.resuming;
    {
        MutexLock lock(mutex_);
        state_.phase = Phase::copying;
        if (!engine_.spaceWarnings().empty())
            state_.warning = engine_.spaceWarnings().front();
    }
    ReportRecorder recorder(ReportWriter::Stamp::present(), resuming);
    settle(engine_.run(std::move(plan), recorder));
}

// The folders were created by this very run, so nobody can be at work in them; the locks keep appends, repairs and
// verifications of other processes out until the records stand.
void OffloadJob::lockFolders() {
    const auto plan = engine_.plan();
    if (plan == nullptr)
        return;
    try {
        locks_ = std::make_unique<FolderLocks>(FolderLocks::acquire(plan->cardPaths()));
    } catch (const std::exception& error) {
        log(fmt::format("no lock on the card folders: {}", error.what()));
    }
}

void OffloadJob::settle(OffloadReport report) {
    const auto& problems = engine_.reportProblems();
    if (!problems.empty())
        markIncomplete(report);
    const bool recorded = problems.empty();
    const bool cardChanged = engine_.cardChanged();
    const bool copied = report.success();
    {
        MutexLock lock(mutex_);
        state_.copySucceeded = copied;
        state_.safeToEject = copied && recorded && !cardChanged;
        state_.safeToFormat = state_.safeToEject && report.safeToFormat();
        if (!recorded)
            state_.warning = problems.front();
        report_ = std::make_shared<const OffloadReport>(std::move(report));
    }
    if (engine_.isCancelled())
        endAs(Phase::cancelled);
    else if (cardChanged)
        endAs(Phase::failed, std::string(swappedCard));
    else
        endAs(Phase::done);
}

// Where the record does stand it must not promise what does not hold on the other disks.
void OffloadJob::markIncomplete(const OffloadReport& report) {
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
    {
        MutexLock lock(mutex_);
        status = state_;
    }
    if (status.phase == Phase::waiting)
        return status;
    if (status.phase == Phase::copying)
        status.phase = phaseOf(copy.phase);
    status.paused = gate.isPaused();
    status.pauseHeld = gate.isHeld();
    status.pausedTotal = gate.pausedTotal();
    if (status.paused && !status.pauseHeld)
        status.pauseStep = stepBeforePause(copy);
    for (const auto bytes : copy.verifiedBytes) {
        status.verifyDoneByDest.push_back(bytes);
        status.verifyTotalByDest.push_back(copy.totalBytes);
        status.verifyDone += bytes;
        status.verifyTotal += copy.totalBytes;
    }
    status.copy = copy;
    return status;
}

std::shared_ptr<const OffloadReport> OffloadJob::report() const {
    MutexLock lock(mutex_);
    return report_;
}

} // namespace velmora
