#include "job/JobProgress.h"

#include "base/Text.h"

#include <algorithm>

namespace velmora {

namespace {

using Phase = JobStatus::Phase;

constexpr double shortestStep = 0.2; // seconds
constexpr double keep = 0.6;
constexpr double take = 0.4;

bool isPostStage(Phase phase) { return phase > Phase::reporting && phase < Phase::done; }

std::int64_t readBytes(const JobStatus& status) { return status.copy ? status.copy->readBytes : 0; }

// The bytes by which a destination's share of the phase is told.
std::vector<std::int64_t> destBytes(const JobStatus& status) {
    if (!status.copy)
        return {};
    return status.phase == Phase::verifying ? status.copy->verifiedBytes : status.copy->writtenBytes;
}

double smoothed(double rate, std::int64_t bytes, std::int64_t before, double dt) {
    return rate * keep + static_cast<double>(std::max<std::int64_t>(0, bytes - before)) / dt * take;
}

void smoothAll(std::vector<double>& rates, const std::vector<std::int64_t>& bytes, std::vector<std::int64_t>& before,
               double dt) {
    rates.resize(bytes.size(), 0);
    before.resize(bytes.size(), 0);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        rates[i] = smoothed(rates[i], bytes[i], before[i], dt);
    before = bytes;
}

// Collects the time left of parts that work beside each other: the last one to finish decides.
class Slowest {
public:
    void add(std::int64_t total, std::int64_t done, double rate) {
        if (rate > 0)
            seconds_ =
                std::max(seconds_.value_or(0), static_cast<double>(std::max<std::int64_t>(0, total - done)) / rate);
    }
    std::optional<double> seconds() const { return seconds_; }

private:
    std::optional<double> seconds_;
};

} // namespace

JobProgress::JobProgress(double now) : started_(now), lastTime_(now) {}

void JobProgress::update(const JobStatus& status, double now) {
    status_ = status;
    if (status.phase != lastPhase_)
        startPhase(now);
    if (const double dt = now - lastTime_; dt > shortestStep)
        moveRates(now, dt);
    followStage2(now);
    eta_ = estimate(now);
}

void JobProgress::startPhase(double now) {
    lastPhase_ = status_.phase;
    lastTime_ = now;
    lastBytes_ = readBytes(status_);
    lastDest_ = destBytes(status_);
    readRate_ = 0;
    destRates_.assign(lastDest_.size(), 0);
    brake_.reset();
    if (brakes_)
        brakes_->reset();
}

void JobProgress::moveRates(double now, double dt) {
    readRate_ = smoothed(readRate_, readBytes(status_), lastBytes_, dt);
    lastBytes_ = readBytes(status_);
    smoothAll(destRates_, destBytes(status_), lastDest_, dt);
    lastTime_ = now;
    if (brakes_ && status_.phase == Phase::copying && status_.copy)
        brake_ = brakes_->add(now - started_, status_.copy->readBytes, status_.copy->writtenBytes);
}

void JobProgress::updateVerifyRates(const JobStatus& status, double now) {
    if (!lastVerifyTime_ || lastVerify_.size() != status.verifyDoneByDest.size()) {
        lastVerifyTime_ = now;
        lastVerify_ = status.verifyDoneByDest;
        verifyRates_.assign(lastVerify_.size(), 0);
    } else if (const double dt = now - *lastVerifyTime_; dt > shortestStep) {
        smoothAll(verifyRates_, status.verifyDoneByDest, lastVerify_, dt);
        lastVerifyTime_ = now;
    }
}

void JobProgress::followStage2(double now) {
    if (!stage2Began_ && isPostStage(status_.phase))
        stage2Began_ = Stage2{now, status_.pausedTotal};
    if (stage2Began_ && status_.isFinished() && !stage2Elapsed_)
        stage2Elapsed_ = now - stage2Began_->began - (status_.pausedTotal - stage2Began_->pausedBefore);
}

std::optional<double> JobProgress::estimate(double now) const {
    if (!JobWords::isRunning(status_))
        return std::nullopt;
    return isPostStage(status_.phase) ? postEta(now) : copyEta();
}

std::optional<double> JobProgress::copyEta() const {
    if (!status_.copy)
        return std::nullopt;
    Slowest slowest;
    if (status_.phase != Phase::verifying)
        slowest.add(status_.copy->totalBytes, status_.copy->readBytes, readRate_);
    const std::vector<std::int64_t> done = destBytes(status_);
    for (std::size_t i = 0; i < done.size() && i < destRates_.size(); ++i)
        slowest.add(status_.copy->totalBytes, done[i], destRates_[i]);
    return slowest.seconds();
}

std::optional<double> JobProgress::postEta(double now) const {
    Slowest slowest;
    const std::size_t disks = std::min(status_.verifyTotalByDest.size(), verifyRates_.size());
    for (std::size_t i = 0; i < disks && i < status_.verifyDoneByDest.size(); ++i)
        slowest.add(status_.verifyTotalByDest[i], status_.verifyDoneByDest[i], verifyRates_[i]);
    if (status_.phase == Phase::finishingVerification || status_.clipCount < 1 || !stage2Began_)
        return slowest.seconds();
    // Clips differ in length, so their number is a rough measure; it gets better as the stage goes on.
    const double elapsed = now - stage2Began_->began - (status_.pausedTotal - stage2Began_->pausedBefore);
    const double clips = static_cast<double>(std::max<std::int64_t>(0, status_.clipIndex - 1)) + status_.clipFraction;
    const double share = std::clamp(clips / static_cast<double>(status_.clipCount), 0.0, 1.0);
    if (share <= 0 || elapsed <= 0)
        return slowest.seconds();
    return std::max(slowest.seconds().value_or(0), elapsed * (1 - share) / share);
}

std::string JobProgress::detailText() const {
    std::vector<std::string> parts;
    if (isPostStage(status_.phase) && status_.clipCount > 0)
        parts.push_back("Proxy " + std::to_string(status_.clipIndex) + "/" + std::to_string(status_.clipCount));
    else if (status_.phase == Phase::copying && readRate_ > 0)
        parts.push_back("Card " + JobWords::rateText(readRate_));
    else if (status_.phase == Phase::verifying && !destRates_.empty())
        parts.push_back(JobWords::rateText(std::ranges::min(destRates_)));
    if (eta_)
        parts.push_back(JobWords::etaText(*eta_) + " left");
    return join(parts, " · ");
}

} // namespace velmora
