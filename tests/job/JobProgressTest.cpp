#include "job/JobProgress.h"

namespace velmora {
namespace {

using Phase = JobStatus::Phase;

constexpr std::int64_t MB = 1'000'000;

JobStatus copying(std::int64_t read, std::vector<std::int64_t> written, std::int64_t total = 10'000 * MB) {
    JobStatus status;
    status.phase = Phase::copying;
    status.copy.emplace();
    status.copy->totalBytes = total;
    status.copy->readBytes = read;
    status.copy->bytesToWrite.assign(written.size(), total);
    status.copy->handledBytes = written;
    status.copy->writtenBytes = std::move(written);
    return status;
}

TEST(JobProgress, SmoothsTheRatesOfReaderAndDisks) {
    JobProgress progress(0);
    progress.update(copying(0, {0, 0}), 60); // it waited a minute; that is no part of any rate
    progress.update(copying(100 * MB, {100 * MB, 50 * MB}), 61);
    EXPECT_NEAR(progress.readRate(), 40e6, 1);
    EXPECT_NEAR(progress.destRates()[1], 20e6, 1);
    const auto before = progress.destRates();
    progress.update(copying(900 * MB, {900 * MB, 900 * MB}), 61.1);
    EXPECT_EQ(progress.destRates(), before) << "too soon to tell";
    progress.update(copying(200 * MB, {200 * MB, 40 * MB}), 62); // a file was given up: its bytes do not count back
    EXPECT_NEAR(progress.readRate(), 64e6, 1);
    EXPECT_NEAR(progress.destRates()[1], 12e6, 1);
}

TEST(JobProgress, LetsTheSlowestPartTellTheTimeLeft) {
    JobProgress progress(0);
    progress.update(copying(0, {0, 0}), 0);
    EXPECT_EQ(progress.eta(), std::nullopt);
    EXPECT_EQ(progress.detailText(), "");
    progress.update(copying(1000 * MB, {1000 * MB, 500 * MB}), 1);
    EXPECT_NEAR(progress.eta().value(), 9500.0 / 200, 1e-6); // 500 MB/s, a first sample counts 0.4
    EXPECT_EQ(progress.detailText(), "Card 400 MB/s · 0:48 left");
    JobProgress resumed(0); // hours may go by in the check of what an interrupted run has left
    JobStatus check = copying(0, {0, 0});
    check.copy->bytesToCheck = 10'000 * MB;
    resumed.update(check, 0);
    check.copy->checkedBytes = 5'000 * MB;
    resumed.update(check, 1);
    EXPECT_EQ(resumed.share(), 0.25);
    EXPECT_NEAR(resumed.eta().value(), 15'000.0 / 2'000, 1e-6);
    EXPECT_EQ(resumed.readRate(), 0) << "not a byte of it came from the card";
    JobStatus finished = copying(10'000 * MB, {10'000 * MB, 10'000 * MB});
    finished.phase = Phase::done;
    progress.update(finished, 2);
    EXPECT_EQ(progress.eta(), std::nullopt);
}

TEST(JobProgress, MeasuresTheReadBackByItself) {
    JobProgress progress(0);
    JobStatus status = copying(100 * MB, {100 * MB, 100 * MB}, 100 * MB); // an append of little
    progress.update(status, 10);
    status.phase = Phase::verifying;
    status.verifyTotalByDest = {1000 * MB, 500 * MB}; // an interrupted run left more to read back
    status.verifyDoneByDest = {0, 0};
    progress.update(status, 11);
    EXPECT_EQ(progress.eta(), std::nullopt) << "the rate of the copy says nothing about reading back";
    EXPECT_EQ(progress.share(), 0);
    status.verifyDoneByDest = {250 * MB, 500 * MB};
    progress.update(status, 12);
    EXPECT_NEAR(progress.eta().value(), 750.0 / 100, 1e-6);
    EXPECT_EQ(progress.share(), 0.25) << "the slower disk decides";
    EXPECT_EQ(progress.destShares(), (std::vector<std::optional<double>>{0.25, 1.0}));
    EXPECT_EQ(progress.destEtas()[1], 0);
    EXPECT_EQ(progress.detailText(), "100 MB/s · 0:08 left");

    JobStatus repair; // reads the copies before there is anything to copy
    repair.phase = Phase::copying;
    repair.examining = "Checking the backup";
    repair.verifyTotalByDest = {1000 * MB};
    for (const int second : {0, 1}) {
        repair.verifyDoneByDest = {second * 100 * MB};
        progress.updateVerifyRates(repair, 20 + second);
        progress.update(repair, 20 + second);
    }
    EXPECT_NEAR(progress.eta().value(), 900.0 / 40, 1e-6);
    EXPECT_NEAR(progress.verifyRates().at(0), 40e6, 1);
}

TEST(JobProgress, WhatADiskCannotTakeIsNotLeftToDo) {
    JobProgress progress(0);
    JobStatus status = copying(0, {0, 0});
    progress.update(status, 0);
    double last = 1e9;
    for (int second = 1; second <= 90; ++second) {
        status = copying(100 * MB * second, {100 * MB * second, std::min(10, second) * 100 * MB});
        status.copy->handledBytes[1] = 100 * MB * second; // full after ten seconds
        progress.update(status, second);
        EXPECT_LT(progress.eta().value(), last) << "after " << second << " s";
        last = progress.eta().value();
    }
    EXPECT_NEAR(last, 10, 0.1);
    EXPECT_LT(progress.destRates()[1], 1);
    status.pauseHeld = true;
    for (int second = 91; second <= 120; ++second)
        progress.update(status, second);
    EXPECT_NEAR(progress.readRate(), 100e6, 1e5) << "a pause is not the speed of the disks";
    EXPECT_NEAR(progress.eta().value(), 10, 0.1);
}

TEST(JobProgress, CountsThePostStageWithoutItsPauses) {
    JobProgress progress(0);
    JobStatus status = copying(MB, {MB}, MB);
    status.phase = Phase::analyzing;
    status.pausedTotal = 7;
    status.clipIndex = 1;
    status.clipCount = 4;
    status.verifyTotalByDest = {0, 1000 * MB};
    status.verifyDoneByDest = {0, 200 * MB};
    progress.update(status, 100);
    EXPECT_EQ(progress.eta(), std::nullopt);
    status.phase = Phase::proxies;
    status.clipIndex = 2;
    status.pausedTotal = 27;
    progress.update(status, 150); // 30 s of work for one clip of four
    EXPECT_NEAR(progress.eta().value(), 90, 1e-6);
    EXPECT_EQ(progress.detailText(), "Proxy 2/4 · 1:30 left");
    progress.updateVerifyRates(status, 150);
    status.verifyDoneByDest = {0, 210 * MB};
    progress.updateVerifyRates(status, 150.1);
    EXPECT_EQ(progress.verifyRates()[1], 0) << "too soon to tell";
    progress.updateVerifyRates(status, 152);
    EXPECT_NEAR(progress.verifyRates()[1], 2e6, 1);
    progress.update(status, 152); // 10 MB in 32 s
    EXPECT_NEAR(progress.eta().value(), 790 * 3.2, 1e-6) << "the verification beside the render takes longer";
    EXPECT_EQ(progress.stage2Elapsed(), std::nullopt);
    status.phase = Phase::done;
    progress.update(status, 200);
    progress.update(status, 300);
    EXPECT_NEAR(progress.stage2Elapsed().value(), 80, 1e-6);
}

TEST(JobProgress, NamesTheBrakeOfTheCopy) {
    JobProgress progress(0);
    progress.attachBrakeMeter(BrakeMeter(16 * MB, 16, {}, 4.0));
    progress.update(copying(0, {0, 0}), 0);
    for (int second = 1; second <= 6; ++second)
        progress.update(copying((160 + second * 100) * MB, {(160 + second * 100) * MB, second * 100 * MB}), second);
    ASSERT_TRUE(progress.brake());
    EXPECT_EQ(progress.brake()->element, 2);
    JobStatus next = copying(760 * MB, {760 * MB, 600 * MB});
    next.phase = Phase::flushing;
    progress.update(next, 7);
    EXPECT_FALSE(progress.brake());
}

} // namespace
} // namespace velmora
