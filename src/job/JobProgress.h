#pragma once

#include "base/BrakeMeter.h"
#include "job/JobWords.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velmora {

// Turns a stream of JobStatus into rates and a time left. Lives on one thread; times are seconds of a clock that only
// goes forward. Rates are bytes a second, smoothed; they start anew with each phase.
class JobProgress {
public:
    explicit JobProgress(double now);

    void attachBrakeMeter(BrakeMeter meter) { brakes_ = std::move(meter); }
    // Two calls within 0.2 seconds leave the rates as they are, so that a fast poll does not make them jump.
    void update(const JobStatus& status, double now);
    // The rates at which the copies are read, on a clock of their own: the verification may run beside the render.
    void updateVerifyRates(const JobStatus& status, double now);

    const JobStatus& status() const noexcept { return status_; }
    double started() const noexcept { return started_; }
    double readRate() const noexcept { return readRate_; }
    // How much of the phase is done, 0 … 1: the part that is furthest behind decides. None where nobody can tell.
    std::optional<double> share() const;
    // The same and the time left, for each destination. What a disk that ran full does not take counts as done.
    std::vector<std::optional<double>> destShares() const;
    std::vector<std::optional<double>> destEtas() const;
    // What each destination takes in, or gives while it is read back.
    const std::vector<double>& destRates() const noexcept { return destRates_; }
    const std::vector<double>& verifyRates() const noexcept { return verifyRates_; }
    std::optional<double> eta() const noexcept { return eta_; } // seconds
    const std::optional<Brake>& brake() const noexcept { return brake_; }
    // Seconds that the post stage took, pauses not counted; none until it has ended.
    std::optional<double> stage2Elapsed() const noexcept { return stage2Elapsed_; }

    // Rate and time left: "Card 182 MB/s · 3:05 left", "Proxy 3/12 · 8:10 left". Empty when there is nothing to tell.
    std::string detailText() const;

private:
    struct Stage2 {
        double began;
        double pausedBefore;
        std::vector<std::int64_t> verified; // bytes verified at that time, by destination
    };
    // What one part has to do in the phase, and how fast it comes on.
    struct Work {
        std::int64_t done = 0;
        std::int64_t total = 0;
        double rate = 0;
        std::optional<double> share() const;
        std::optional<double> secondsLeft() const;
    };
    std::vector<Work> destWork() const;
    Work readerWork() const;
    void startPhase(double now);
    void moveRates(double now, double dt);
    void followStage2(double now);
    std::optional<double> estimate(double now) const;
    std::optional<double> workEta() const;
    std::optional<double> postEta(double now) const;

    double started_;
    double lastTime_;
    std::int64_t lastBytes_ = 0;
    std::int64_t lastReader_ = 0;
    double readerRate_ = 0; // as readRate_, but the check of part files counts too
    std::vector<std::int64_t> lastDest_;
    JobStatus::Phase lastPhase_ = JobStatus::Phase::waiting;
    std::optional<BrakeMeter> brakes_;
    JobStatus status_;
    double readRate_ = 0;
    std::vector<double> destRates_;
    std::vector<std::int64_t> lastWork_;
    std::vector<double> workRates_; // like destRates_, but skipped bytes count as done
    std::optional<std::string> lastExamining_;
    std::vector<double> verifyRates_;
    std::vector<std::int64_t> lastVerify_;
    std::optional<double> lastVerifyTime_;
    std::optional<double> eta_;
    std::optional<Brake> brake_;
    std::optional<Stage2> stage2Began_;
    std::optional<double> stage2Elapsed_;
};

} // namespace velmora
