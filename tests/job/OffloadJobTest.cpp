#include "job/OffloadJob.h"

#include "engine/FolderLocks.h"
#include "memory/HistoryRecorder.h"
#include "memory/HistoryRecords.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

namespace velmora {
namespace {

using Phase = JobStatus::Phase;

class OffloadJobTest : public testing::Test {
protected:
    test::TempFolder temp;
    test::TempFolder reader{"/dev/shm"}; // the card lies on a volume of its own
    JobConfig config{reader / "CARD", {temp / "a", temp / "b"}};
    OffloadOptions options;

    void SetUp() override {
        ::setenv("VELMORA_SETTINGS_DIR", (temp / "settings").c_str(), 1);
        test::FileTree::make(config.source, {{"1.mov", 2'100'000}, {"2.mov", 1'000'000}, {"3.mov", 50}});
        for (const auto& root : config.destRoots)
            std::filesystem::create_directory(root);
        config.date = "2026-03-14";
        config.chunkMB = 1;
        config.allowSameDevice = true;
        options.cardMedium = [](const std::string&) { return CardKey{"1A2B3C4D", std::int64_t{64} << 30}; };
    }
    void TearDown() override { ::unsetenv("VELMORA_SETTINGS_DIR"); }
};

TEST_F(OffloadJobTest, PhasesAndPromisesOnlyMoveForward) {
    std::optional<OffloadJob> job;
    std::vector<JobStatus> seen;
    const auto look = [&] { seen.push_back(job->status()); };
    options.beforeFileCopy = [&](std::int64_t) { look(); };
    options.afterChunkRead = [&](std::int64_t) { look(); };
    options.afterVerifyChunk = look;
    config.buffers = 2;
    config.destRoots.pop_back(); // the read-back hook then comes from one thread
    job.emplace(config, options);
    look();
    job->run({});
    look();
    EXPECT_EQ(seen.front().phase, Phase::waiting);
    std::set<Phase> phases;
    for (std::size_t i = 1; i < seen.size(); ++i) {
        EXPECT_GE(seen[i].phase, seen[i - 1].phase);
        phases.insert(seen[i].phase);
        EXPECT_EQ(seen[i].safeToEject || seen[i].safeToFormat, i + 1 == seen.size());
    }
    EXPECT_TRUE(phases.contains(Phase::copying) && phases.contains(Phase::verifying) && phases.contains(Phase::done));
    EXPECT_TRUE(seen.back().safeToEject && seen.back().safeToFormat);
    EXPECT_EQ(seen.back().copy->readBytes, 3'100'050);
}

TEST_F(OffloadJobTest, ACancelKeepsThePromisesThatWereEarned) {
    struct Case {
        std::string moment;
        bool eject;
        std::size_t generations; // folders of the backup that hold an ASC MHL history
    };
    for (const auto& [moment, eject, generations] :
         {Case{"before", false, 0}, Case{"copy", false, 2}, Case{"read-back", true, 2}, Case{"last scan", true, 2}}) {
        std::optional<OffloadJob> job;
        options.cardIdentity = [&](const std::string&) {
            if (moment == "last scan" && job->status().phase == Phase::reporting) // it is asked for ahead of the scan
                job->cancel();
            return std::optional<std::string>("A");
        };
        options.afterChunkRead = [&](std::int64_t) {
            if (moment == "copy" && !job->isCancelled()) // nobody looks what came since
                test::FileTree::write(config.source + "/later.mov", "new"), job->cancel();
        };
        options.afterVerifyChunk = [&] { moment == "read-back" ? job->cancel() : void(); };
        config.cardName = moment;
        job.emplace(config, options);
        if (moment == "before")
            job->cancel();
        job->run({});
        const auto status = job->status();
        EXPECT_EQ(status.phase, Phase::cancelled) << moment;
        EXPECT_EQ(status.safeToEject, eject) << moment;
        EXPECT_FALSE(status.safeToFormat) << moment;
        EXPECT_TRUE(status.warnings.empty()) << moment << status.warnings.front();
        EXPECT_EQ(job->report() == nullptr, moment == "before");
        std::size_t found = 0;
        for (const auto& root : config.destRoots)
            found += std::filesystem::exists(root + "/2026-03-14/" + moment + "/ascmhl/ascmhl_chain.xml");
        EXPECT_EQ(found, generations) << moment;
    }
}

// Its folders are there no more, but that it was tried is known.
TEST_F(OffloadJobTest, ACopyThatBreaksOffAtOnceHasItsEntryInTheHistory) {
    HistoryRecorder recorder;
    for (const bool breaks : {true, false}) {
        config.buffers = breaks ? std::int64_t{1} << 45 : 2; // more memory than there is
        OffloadJob job(config, options, {&recorder, temp / "settings"});
        job.run({});
        const auto entries = HistoryStore(temp / "settings", 1).load();
        ASSERT_EQ(entries.size(), breaks ? 1U : 2U) << job.status().error.value_or("");
        EXPECT_EQ(HistoryRecords::holdsNothing(entries[0]), breaks);
        EXPECT_EQ(entries[0].failedFiles, breaks ? 3 : 0);
        EXPECT_EQ(entries[0].safeToFormat, !breaks);
        EXPECT_FALSE(entries[0].unfinished);
    }
}

TEST_F(OffloadJobTest, ACardThatWasSwappedInAPauseEndsTheJob) {
    std::optional<OffloadJob> job;
    std::atomic<bool> swapped = false;
    int asked = 0;
    std::thread user;
    options.cardIdentity = [&](const std::string&) { return std::optional<std::string>(swapped ? "B" : "A"); };
    options.beforeFileCopy = [&](std::int64_t index) {
        if (index != 1)
            return;
        job->pause();
        user = std::thread([&] {
            while (!job->status().pauseHeld)
                std::this_thread::yield();
            swapped = true;
            job->resume();
        });
    };
    job.emplace(config, options);
    job->run({});
    user.join();
    const auto status = job->status();
    EXPECT_EQ(status.phase, Phase::failed);
    EXPECT_EQ(status.error, "The card in the reader was swapped or removed during the pause — the remaining files were "
                            "not copied. Insert the original card and append to the backup.");
    EXPECT_FALSE(status.safeToEject || status.safeToFormat);
    ASSERT_NE(job->report(), nullptr);
    EXPECT_EQ(job->report()->failedFiles().size(), 2U);
    EXPECT_EQ(job->report()->files.at(1).sourceError, "card changed while paused");

    // The same when everything had been read, with a pause or without, and where nothing has to be copied. What another
    // card holds is not missing from this backup.
    options.beforeFileCopy = {};
    for (const std::string moment : {"PAUSE", "READBACK", "DEFECT", "RECORDS", "NOTHINGNEW"}) {
        swapped = false;
        std::filesystem::remove(config.source + "/stranger.mov");
        config.cardName = moment;
        const std::string card = "/2026-03-14/" + moment;
        if (moment == "NOTHINGNEW") {
            OffloadJob(config, options).run({});
            config.appendInto = {temp / ("a" + card), temp / ("b" + card)};
        }
        const auto swap = [&] {
            test::FileTree::write(config.source + "/stranger.mov", "another card");
            swapped = true;
        };
        options.afterVerifyChunk = [&] {
            moment == "PAUSE" ? job->pause() : void();
            if (moment == "DEFECT" && !swapped)
                test::FileTree::write(temp / ("a" + card + "/3.mov"), std::string(50, 'x'));
            moment == "RECORDS" || moment == "NOTHINGNEW" ? void() : swap();
            moment == "PAUSE" ? job->resume() : void();
        };
        options.cardIdentity = [&](const std::string&) {
            const bool late = moment == "RECORDS" && std::filesystem::exists(temp / ("b" + card + "/ascmhl"));
            if (late || (moment == "NOTHINGNEW" && job->status().phase == Phase::waiting && asked++ == 1))
                swap();
            return std::optional<std::string>(swapped ? "B" : "A");
        };
        job.emplace(config, options);
        job->run({});
        const auto late = job->status();
        EXPECT_EQ(late.phase, Phase::failed);
        EXPECT_TRUE(late.error && late.error->find(moment == "DEFECT" ? "1 file of DEFECT failed, and another card"
                                                                      : ", but another card is in the reader now") !=
                                      std::string::npos)
            << moment << late.error.value_or("");
        EXPECT_FALSE(late.safeToEject || late.safeToFormat) << moment;
        EXPECT_FALSE(job->report() && job->report()->safeToFormatSeconds) << moment;
        for (const std::string& warning : late.warnings)
            EXPECT_EQ(warning.find("the backup does not"), std::string::npos) << warning;
    }
}

TEST_F(OffloadJobTest, NamesAFileThatChangedOnTheCardAfterItWasCopied) {
    options.afterVerifyChunk = [&] { test::FileTree::write(config.source + "/1.mov", "changed"); };
    OffloadJob job(config, options);
    job.run({});
    ASSERT_EQ(job.status().warnings.size(), 1U);
    EXPECT_EQ(job.status().warnings[0].find("1.mov changed on the card after being copied"), 0U)
        << job.status().warnings[0];
    EXPECT_FALSE(job.status().safeToEject || job.status().safeToFormat);
}

TEST_F(OffloadJobTest, KeepsOthersOutOfTheCardFoldersWhileItRuns) {
    std::optional<OffloadJob> job;
    int refused = 0;
    options.afterChunkRead = [&](std::int64_t) {
        try {
            FolderLocks::acquire(job->plan()->cardPaths());
        } catch (const OffloadError& error) {
            refused += error.code() == PreflightCode::appendBusy;
        }
    };
    std::filesystem::create_directories(temp / "b/2026-03-14/CARD"); // so the card goes to another name
    job.emplace(config, options);
    job->run({});
    EXPECT_EQ(job->plan()->cardName, "CARD_2");
    EXPECT_GE(refused, 3);
    EXPECT_NO_THROW(FolderLocks::acquire(job->plan()->cardPaths()));

    // Where no lock can be had, nothing is copied.
    test::FileTree::write(temp / "no folder", "");
    ::setenv("VELMORA_SETTINGS_DIR", (temp / "no folder").c_str(), 1);
    config.cardName = "UNLOCKED";
    OffloadJob unlocked(config, options);
    unlocked.run({});
    EXPECT_EQ(unlocked.status().phase, Phase::failed);
    EXPECT_FALSE(std::filesystem::exists(temp / "a/2026-03-14/UNLOCKED"));
}

TEST_F(OffloadJobTest, AnAppendThatCannotRunTouchesNothing) {
    OffloadJob(config, options).run({});
    test::FileTree::make(config.source, {{"4.mov", 10}});
    const std::string folder = temp / "a/2026-03-14/CARD";
    const auto before = test::FileTree::contents(folder);
    config.appendInto = {folder, temp / "b/2026-03-14/CARD"};
    struct Case {
        PreflightCode code;
        std::function<void(JobConfig&)> harm;
    };
    const Case cases[] = {
        {PreflightCode::chunkSize, [](JobConfig& c) { c.chunkMB = 0; }},
        {PreflightCode::bufferCount, [](JobConfig& c) { c.buffers = 0; }},
        {PreflightCode::sourceNotFound, [](JobConfig& c) { c.source += "_none"; }},
        {PreflightCode::duplicateDestination, [&](JobConfig& c) { c.appendInto = {folder, folder + "/"}; }},
    };
    for (const bool repair : {false, true}) {
        for (const Case& each : cases) {
            JobConfig bad = config;
            each.harm(bad);
            OffloadJob job(bad, options);
            if (repair)
                job.repairInto(*bad.appendInto);
            job.run({});
            EXPECT_EQ(job.status().errorCode, each.code) << job.status().error.value_or("");
            EXPECT_EQ(test::FileTree::contents(folder), before);
        }
    }
    OffloadJob job(config, options);
    job.run({});
    EXPECT_TRUE(job.status().safeToFormat) << job.status().error.value_or("");
}

} // namespace
} // namespace velmora
