#include "base/BrakeMeter.h"
#include "base/PauseGate.h"

#include <future>

namespace velmora {
namespace {

// A clock that stands until it is told to go, and workers that report when they wait.
class PauseGateTest : public ::testing::Test {
protected:
    std::atomic<double> now_{100};
    PauseGate gate_{[this] { return now_.load(); }};

    std::future<bool> arrive(PauseGate::Worker* worker, IsCancelled isCancelled = {}) {
        const std::int64_t holds = gate_.holdCount();
        auto result = std::async(std::launch::async, [this, worker, isCancelled] {
            return worker ? worker->waitWhilePaused(isCancelled) : gate_.waitWhilePaused(isCancelled);
        });
        while (gate_.holdCount() == holds) // it is at the gate now; a lost wake-up would hang until the time limit
            std::this_thread::yield();
        return result;
    }
};

TEST_F(PauseGateTest, CountsOnlyTheTimeInWhichAllWorkersStand) {
    const auto reader = gate_.work(), verifier = gate_.work();
    EXPECT_TRUE(reader->waitWhilePaused({}));
    gate_.pause();
    gate_.pause();
    EXPECT_EQ(gate_.requests(), 1);
    now_ = 110; // nobody has reached a safe point yet
    auto first = arrive(reader.get());
    now_ = 120; // one still works
    EXPECT_FALSE(gate_.isHeld());
    EXPECT_TRUE(reader->isHolding());
    EXPECT_EQ(gate_.pausedTotal(), 0);
    auto second = arrive(verifier.get());
    EXPECT_TRUE(gate_.isHeld());
    now_ = 125;
    EXPECT_EQ(gate_.pausedTotal(), 5); // a running stand counts
    gate_.resume();
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
    now_ = 200;
    EXPECT_EQ(gate_.pausedTotal(), 5);
    EXPECT_FALSE(reader->isHolding());
    EXPECT_EQ(gate_.holdCount(), 2);
    gate_.pause(); // both count as working again
    now_ = 300;
    EXPECT_EQ(gate_.pausedTotal(), 5);
    EXPECT_EQ(gate_.requests(), 2);
}

TEST_F(PauseGateTest, StandsWhenTheLastWorkingOneLeaves) {
    const auto waiting = gate_.work();
    auto leaving = gate_.work();
    gate_.pause();
    EXPECT_FALSE(gate_.isHeld()) << "nobody waits yet";
    auto result = arrive(waiting.get());
    EXPECT_FALSE(gate_.isHeld());
    {
        const PauseGate::Resting resting(leaving.get()); // it only waits for the other
        EXPECT_TRUE(gate_.isHeld());
    }
    EXPECT_FALSE(gate_.isHeld());
    leaving->leave();
    EXPECT_TRUE(gate_.isHeld());
    leaving.reset(); // leaving twice counts once
    EXPECT_TRUE(gate_.isHeld());
    now_ = 101;
    const auto late = gate_.work(); // a newcomer works: the stand is over
    EXPECT_FALSE(gate_.isHeld());
    now_ = 150;
    EXPECT_EQ(gate_.pausedTotal(), 1);
    gate_.resume();
    EXPECT_TRUE(result.get());
}

TEST_F(PauseGateTest, StandsWithoutWorkersOnlyWhileSomebodyWaits) {
    gate_.pause();
    now_ = 110;
    EXPECT_EQ(gate_.pausedTotal(), 0);
    auto result = arrive(nullptr);
    now_ = 113;
    gate_.resume();
    EXPECT_TRUE(result.get());
    EXPECT_EQ(gate_.pausedTotal(), 3);
}

TEST_F(PauseGateTest, ACancelGetsThroughAndLeavesTheCountsRight) {
    const auto worker = gate_.work();
    EXPECT_FALSE(worker->waitWhilePaused([] { return true; })) << "asked even without a pause";
    gate_.pause();
    std::atomic<bool> cancelled{false};
    auto result = arrive(worker.get(), [&] { return cancelled.load(); });
    EXPECT_TRUE(gate_.isHeld());
    cancelled = true;
    gate_.wake();
    EXPECT_FALSE(result.get());
    EXPECT_FALSE(gate_.isHeld());
    EXPECT_TRUE(gate_.isPaused());
    auto throwing = arrive(worker.get(), [calls = 0]() mutable { return ++calls > 1 ? throw Cancelled() : false; });
    EXPECT_THROW(throwing.get(), Cancelled);
    EXPECT_FALSE(gate_.isHeld());
    gate_.resume();
    EXPECT_TRUE(worker->waitWhilePaused({}));
}

TEST_F(PauseGateTest, EndOpensTheGateForGood) {
    const auto worker = gate_.work();
    gate_.pause();
    auto result = arrive(worker.get());
    now_ = 107;
    gate_.end();
    EXPECT_TRUE(result.get());
    gate_.pause();
    EXPECT_FALSE(gate_.isPaused());
    EXPECT_EQ(gate_.requests(), 1);
    EXPECT_EQ(gate_.pausedTotal(), 7);
    EXPECT_TRUE(worker->waitWhilePaused({}));
}

TEST(PauseGate, SeesACancelSoonWithoutAWakeUp) {
    PauseGate gate;
    gate.pause();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(
        gate.waitWhilePaused([&] { return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(20); }));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_GT(gate.pausedTotal(), 0.015);
}

// Feeds one sample a second; each destination lags by its number of bytes.
std::optional<Brake> lagging(BrakeMeter& meter, int seconds, std::int64_t perSecond, std::vector<std::int64_t> lags) {
    std::optional<Brake> brake;
    for (int s = 0; s <= seconds; ++s) {
        std::vector<std::int64_t> written;
        for (const std::int64_t lag : lags)
            written.push_back(std::max<std::int64_t>(0, s * perSecond - lag));
        brake = meter.add(s, s * perSecond, written);
    }
    return brake;
}

TEST(BrakeMeter, BlamesWhoeverTheBlocksPileUpBefore) {
    constexpr std::int64_t MB = 1'000'000;
    struct Case {
        const char* what;
        std::vector<std::int64_t> lags;
        std::int64_t element;
    };
    // 16 buffers of 10 MB: a queue of two blocks is a real one.
    for (const Case& c : {Case{"both keep up", {5 * MB, 15 * MB}, 0}, Case{"second lags", {5 * MB, 90 * MB}, 2},
                          Case{"first lags more", {100 * MB, 90 * MB}, 1}, Case{"just a queue", {20 * MB, 0}, 1},
                          Case{"just none", {20 * MB - 1, 0}, 0}, Case{"no destination", {}, 0}}) {
        BrakeMeter meter(10 * MB, 16, {400.0, 1000.0, 125.0});
        const auto brake = lagging(meter, 8, 100 * MB, c.lags);
        ASSERT_TRUE(brake) << c.what;
        EXPECT_EQ(brake->element, c.element) << c.what;
        EXPECT_NEAR(brake->mbps, 100, 1e-9) << c.what;
        const double link = c.element == 0 ? 400 : c.element == 1 ? 1000 : 125;
        EXPECT_NEAR(brake->utilization.value_or(-1), 100 / link, 1e-9) << c.what;
    }
    BrakeMeter narrow(10 * MB, 2, {100.0});
    EXPECT_EQ(lagging(narrow, 8, 100 * MB, {10 * MB})->element, 1) << "with two buffers one block is the whole queue";
    BrakeMeter full(10 * MB, 16, {105.0});
    EXPECT_TRUE(lagging(full, 8, 100 * MB, {0})->linkFull());
}

TEST(BrakeMeter, SaysNothingWithoutEnoughToGoBy) {
    BrakeMeter meter(1, 16, {});
    EXPECT_FALSE(meter.add(0, 0, {0}));
    EXPECT_FALSE(meter.add(1.9, 100, {100})) << "under half of the window";
    EXPECT_TRUE(meter.add(2, 200, {200}));
    EXPECT_FALSE(meter.add(2.5, 300, {300, 300})) << "another number of destinations starts anew";
    EXPECT_TRUE(meter.add(5, 400, {400, 400}));
    EXPECT_FALSE(meter.add(4, 500, {500, 500})) << "time went back";
    EXPECT_FALSE(meter.add(8, 500, {500, 500})) << "nothing moved";
    const auto brake = meter.add(9, 1'000'500, {500, 500});
    EXPECT_FALSE(brake) << "the brake is a destination that moved nothing";
    meter.reset();
    EXPECT_FALSE(meter.add(20, 2'000'000, {0, 0}));
}

} // namespace
} // namespace velmora
