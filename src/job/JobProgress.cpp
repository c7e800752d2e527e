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

// Bytes read from the card, and from the part files that are checked before a copy goes on.
std::int64_t readerBytes(const JobStatus& status) {
    return status.copy ? status.copy->readBytes + status.copy->checkedBytes : 0;
}

bool readsCopies(const JobStatus& status) { return status.examining || status.phase == Phase::verifying; }

// What each destination moves.
std::vector<std::int64_t> destBytes(const JobStatus& status) {
    if (readsCopies(status))
        return status.verifyDoneByDest;
    return status.copy ? status.copy->writtenBytes : std::vector<std::int64_t>();
}

std::vector<std::int64_t> plusEach(std::vector<std::int64_t> values, std::int64_t more) {
    for (std::int64_t& value : values)
        value += more;
    return values;
}

// The work of each destination in this phase, done and total. A check of part files counts for all: all wait for it.
std::vector<std::int64_t> workDone(const JobStatus& status) {
    if (readsCopies(status))
        return status.verifyDoneByDest;
    return status.copy ? plusEach(status.copy->handledBytes, status.copy->checkedBytes) : std::vector<std::int64_t>();
}

std::vector<std::int64_t> workTotal(const JobStatus& status) {
    if (readsCopies(status))
        return status.verifyTotalByDest;
    return status.copy ? plusEach(status.copy->bytesToWrite, status.copy->bytesToCheck) : std::vector<std::int64_t>();
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

// Of parts that work beside each other the last one to finish decides.
std::optional<double> later(std::optional<double> a, std::optional<double> b) {
    return a && b ? std::max(a, b) : a ? a : b;
}

} // namespace

JobProgress::JobProgress(double now) : started_(now), lastTime_(now) {}

void JobProgress::update(const JobStatus& status, double now) {
    status_ = status;
    if (status.phase != lastPhase_ || status.examining != lastExamining_)
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
    lastReader_ = readerBytes(status_);
    readerRate_ = 0;
    lastExamining_ = status_.examining;
    lastDest_ = destBytes(status_);
    lastWork_ = workDone(status_);
    workRates_.assign(lastWork_.size(), 0);
    readRate_ = 0;
    destRates_.assign(lastDest_.size(), 0);
    brake_.reset();
    if (brakes_)
        brakes_->reset();
}

void JobProgress::moveRates(double now, double dt) {
    lastTime_ = now;
    if (status_.pauseHeld)
        return; // no rates are taken in a pause
    readRate_ = smoothed(readRate_, readBytes(status_), lastBytes_, dt);
    lastBytes_ = readBytes(status_);
    readerRate_ = smoothed(readerRate_, readerBytes(status_), lastReader_, dt);
    lastReader_ = readerBytes(status_);
    smoothAll(destRates_, destBytes(status_), lastDest_, dt);
    smoothAll(workRates_, workDone(status_), lastWork_, dt);
    if (brakes_ && status_.phase == Phase::copying && status_.copy)
        brake_ = brakes_->add(now - started_, status_.copy->readBytes, status_.copy->writtenBytes);
}

void JobProgress::updateVerifyRates(const JobStatus& status, double now) {
    const bool isAnother = !std::ranges::equal(lastVerify_, status.verifyDoneByDest, std::ranges::less_equal()) ||
                           lastVerify_.size() != status.verifyDoneByDest.size();
    if (!lastVerifyTime_ || isAnother) {
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
        stage2Began_ = Stage2{now, status_.pausedTotal, status_.verifyDoneByDest};
    if (stage2Began_ && status_.isFinished() && !stage2Elapsed_)
        stage2Elapsed_ = now - stage2Began_->began - (status_.pausedTotal - stage2Began_->pausedBefore);
}

std::optional<double> JobProgress::estimate(double now) const {
    if (!JobWords::isRunning(status_))
        return std::nullopt;
    return isPostStage(status_.phase) ? postEta(now) : workEta();
}

std::optional<double> JobProgress::Work::share() const {
    if (total <= 0)
        return std::nullopt;
    return std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0);
}

std::optional<double> JobProgress::Work::secondsLeft() const {
    constexpr double standsStill = 1; // byte a second; a smoothed rate never reaches 0
    if (total > 0 && done >= total)
        return 0;
    if (total <= 0 || rate < standsStill)
        return std::nullopt;
    return static_cast<double>(total - done) / rate;
}

std::vector<JobProgress::Work> JobProgress::destWork() const {
    const std::vector<std::int64_t> done = workDone(status_);
    const std::vector<std::int64_t> total = workTotal(status_);
    std::vector<Work> work;
    for (std::size_t i = 0; i < std::min({done.size(), total.size(), workRates_.size()}); ++i)
        work.push_back({done[i], total[i], workRates_[i]});
    return work;
}

// Empty while something other than the card is read.
JobProgress::Work JobProgress::readerWork() const {
    if (!status_.copy || readsCopies(status_) || isPostStage(status_.phase))
        return {};
    return {readerBytes(status_), status_.copy->totalBytes + status_.copy->bytesToCheck, readerRate_};
}

std::optional<double> JobProgress::workEta() const {
    std::optional<double> seconds = readerWork().secondsLeft();
    for (const Work& each : destWork())
        seconds = later(seconds, each.secondsLeft());
    return seconds;
}

std::optional<double> JobProgress::share() const {
    std::optional<double> least = readerWork().share();
    for (const auto& each : destShares())
        least = least && each ? std::min(least, each) : least ? least : each;
    return least;
}

std::vector<std::optional<double>> JobProgress::destShares() const {
    std::vector<std::optional<double>> shares;
    for (const Work& each : destWork())
        shares.push_back(each.share());
    return shares;
}

std::vector<std::optional<double>> JobProgress::destEtas() const {
    std::vector<std::optional<double>> etas;
    for (const Work& each : destWork())
        etas.push_back(each.secondsLeft());
    return etas;
}

// Uses the average since the stage began. A disk is proved in bursts, as the renderer asks for its blocks, so its
// present rate says little.
std::optional<double> JobProgress::postEta(double now) const {
    if (!stage2Began_)
        return std::nullopt;
    const double elapsed = now - stage2Began_->began - (status_.pausedTotal - stage2Began_->pausedBefore);
    const std::vector<std::int64_t>& before = stage2Began_->verified;
    const std::vector<std::int64_t>& done = status_.verifyDoneByDest;
    const std::vector<std::int64_t>& total = status_.verifyTotalByDest;
    std::optional<double> left;
    for (std::size_t i = 0; i < std::min({before.size(), done.size(), total.size()}) && elapsed > 0; ++i)
        left = later(left, Work{done[i], total[i], static_cast<double>(done[i] - before[i]) / elapsed}.secondsLeft());
    // Clips differ in length, so their number is a rough measure; it gets better as the stage goes on.
    const double clips = static_cast<double>(std::max<std::int64_t>(0, status_.clipIndex - 1)) + status_.clipFraction;
    const double share = clips / static_cast<double>(std::max<std::int64_t>(1, status_.clipCount));
    // Renders take longer than an analysis, so an analysis before them tells nothing of their time.
    const bool showsClips =
        status_.phase == Phase::proxies || (status_.phase == Phase::analyzing && !status_.verifyInProxy);
    if (showsClips && share > 0 && elapsed > 0)
        left = later(left, elapsed * (1 - std::min(share, 1.0)) / share);
    return left;
}

std::string JobProgress::detailText() const {
    std::vector<std::string> parts;
    if (isPostStage(status_.phase) && status_.clipCount > 0)
        parts.push_back("Proxy " + std::to_string(status_.clipIndex) + "/" + std::to_string(status_.clipCount));
    else if (status_.phase == Phase::copying && !status_.examining && readRate_ > 0)
        parts.push_back("Card " + JobWords::rateText(readRate_));
    else if (readsCopies(status_) && !destRates_.empty())
        parts.push_back(JobWords::rateText(std::ranges::min(destRates_)));
    if (eta_)
        parts.push_back(JobWords::etaText(*eta_) + " left");
    return join(parts, " · ");
}

} // namespace velmora
