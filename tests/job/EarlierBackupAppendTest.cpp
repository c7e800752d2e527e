#include "job/EarlierBackup.h"

#include "base/RelativePath.h"
#include "memory/CardRecord.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"

// What an append does with the earlier backup that it finds, whole or left by a run that died.
namespace velmora {
namespace {

TEST_F(EarlierBackup, AFolderThatWasCopiedCountsOnceItsBytesWereCompared) {
    ASSERT_EQ(copy().phase, Phase::done);
    keep();
    const test::TempFolder other{"/dev/shm"}; // no serial, and the card's own volume
    for (const std::string& root : {temp / "a/sub", other / "disk"}) {
        SCOPED_TRACE(root);
        const std::string clone = root + "/2026-03-14/CARD";
        const auto cloneIt = [&] {
            restore();
            shell("rm -rf '" + root + "'; mkdir -p '" + root + "/2026-03-14'; cp -a a/2026-03-14/CARD '" + clone + "'");
        };
        cloneIt();
        test::FileTree::flipBit(clone + "/DCIM/1.mov", 1000);
        JobStatus status = append({clone});
        EXPECT_FALSE(status.safeToEject || status.safeToFormat);
        EXPECT_EQ(job->report()->failedFiles().size(), 1U);

        cloneIt();
        fs::rename(cards[1], temp / "away");
        status = append({cards[0], clone});
        EXPECT_FALSE(status.safeToFormat);
        EXPECT_THAT(testing::PrintToString(status.warnings),
                    HasSubstr("also in " + cards[1] + ", which was not named"));
        fs::rename(temp / "away", cards[1]);

        cloneIt();
        status = append({clone});
        EXPECT_TRUE(status.safeToFormat) << testing::PrintToString(status.warnings);
        EXPECT_THAT(testing::PrintToString(status.warnings), HasSubstr("compares its files with the card"));
        // The other folders are a generation behind now; the text names what brings them on.
        status = append({cards[0], clone});
        EXPECT_EQ(status.errorCode, PreflightCode::appendDiverged);
        EXPECT_THAT(status.error.value_or(""), HasSubstr(cards[0] + " is behind the others"));
        append({cards[0]}, true);
        EXPECT_TRUE(append({cards[0], clone}).safeToFormat) << testing::PrintToString(job->status().warnings);
    }
}

// Disks that were appended to one by one stand at one generation and hold different files.
TEST_F(EarlierBackup, AnAppendBringsDisksInStep) {
    ASSERT_EQ(copy().phase, Phase::done);
    shoot({{"4.mov", 1000}});
    EXPECT_FALSE(append({cards[0]}).safeToFormat);
    shoot({{"5.mov", 1000}});
    EXPECT_FALSE(append({cards[1]}).safeToFormat) << "the other disk lacks 5.mov";
    keep();
    ManifestRecord died; // a run that died while it brought the file over is no repair
    died.gen = 3;
    died.path = "5.mov";
    ManifestFile::append(cards[0], std::span(&died, 1));
    EXPECT_TRUE(append(cards).safeToFormat);
    EXPECT_EQ(job->report()->files.size(), 1U);
    EXPECT_EQ(job->report()->files.front().rewritten, (std::vector<bool>{true, false}));
    for (const auto& card : cards)
        EXPECT_EQ(test::FileTree::read(card + "/5.mov"), test::FileTree::read(temp / "card/5.mov"));
    EXPECT_THAT(append(cards).note.value_or(""), testing::StartsWith("Nothing new — the backup is complete."));

    // A disk that is two generations behind comes back in step by what the refusal says, one run for each.
    restore();
    for (const char* name : {"6.mov", "7.mov"}) {
        shoot({{name, 1000}});
        ASSERT_EQ(append({cards[0]}).phase, Phase::done);
    }
    for (const JobStatus& status : {append(cards), repair(cards)})
        EXPECT_THAT(
            status.error.value_or(""),
            testing::AllOf(HasSubstr("--into \"" + cards[1] + "\"). Where nothing is new for it, add --compare."),
                           HasSubstr("one of the 2 generations that it lacks")));
    for (int run = 0; run < 2; ++run) {
        EXPECT_EQ(append(cards).errorCode, PreflightCode::appendDiverged);
        append({cards[1]}, true);
    }
    test::FileTree::flipBit(cards[1] + "/6.mov", 500);
    EXPECT_TRUE(repair(cards).safeToFormat) << job->status().error.value_or("");
    EXPECT_TRUE(append(cards).safeToFormat) << job->status().error.value_or("");

    // A card that gives something else than the one good copy came from is not the truth, now or in the repair after
    // it.
    restore();
    test::FileTree::flipBit(temp / "card/5.mov", 500);
    EXPECT_FALSE(append(cards).safeToEject);
    EXPECT_THAT(job->report()->files.front().sourceError.value_or(""), HasSubstr("different content"));
    EXPECT_EQ(repair(cards).errorCode, PreflightCode::repairConflict);
    EXPECT_THAT(job->status().error.value_or(""), HasSubstr("5.mov: the card has different content"));
}

// The card gave one of two files whose names differ in case only, and then lost the other.
TEST_F(EarlierBackup, AFileThatIsLostIsNotHiddenByItsTwin) {
    for (const std::string lost : {"A.MOV", "a.mov"}) {
        SCOPED_TRACE(lost);
        shell("rm -rf a/* b/* card/*.*");
        shoot({{"A.MOV", 1000}, {"a.mov", 1000}});
        options.beforeFileCopy = [&](std::int64_t) { fs::remove(temp / "card/" + lost); };
        EXPECT_FALSE(copy().safeToEject);
        options.beforeFileCopy = {};
        for (const JobStatus& status : {append(cards), repair(cards)}) {
            EXPECT_EQ(status.phase, Phase::done) << status.error.value_or("");
            EXPECT_FALSE(status.safeToEject || status.safeToFormat);
            EXPECT_THAT(status.warning().value_or(""), HasSubstr(lost + " — do not format the card"));
            EXPECT_THAT(status.note.value_or(""), testing::StartsWith("Nothing "));
            EXPECT_THAT(status.note.value_or(""),
                        testing::Not(testing::AnyOf(HasSubstr("complete"), HasSubstr("good"))));
        }
    }
}

TEST_F(EarlierBackup, ACopyThatWasTouchedIsNotVouchedForUnread) {
    ASSERT_TRUE(copy().safeToFormat);
    test::FileTree::flipBit(cards[1] + "/3.txt", 1);
    fs::last_write_time(cards[1] + "/3.txt", fs::file_time_type::clock::now() + std::chrono::hours(1));
    JobConfig unread = config();
    unread.appendInto = cards;
    unread.verify = false;
    EXPECT_FALSE(run(unread).safeToFormat);
}

// What a person put where a dead run had begun a file is not that run's to destroy.
TEST_F(EarlierBackup, AResumedRunMovesAsideWhatItDidNotWrite) {
    ASSERT_EQ(copy().phase, Phase::done);
    shoot({{"DCIM/4.mov", 1'500'000}, {"DCIM/5.mov", 10}});
    line(2, "DCIM/4.mov");
    line(2, "DCIM/5.mov");
    fs::create_symlink("elsewhere", cards[0] + "/DCIM/5.mov");
    fs::create_directories(cards[1] + "/DCIM/5.mov/empty");
    test::FileTree::write(cards[1] + "/_REPORT/offload_report_0002.txt", "mine");
    test::FileTree::write(cards[1] + "/DCIM/4.mov", "notes");
    test::FileTree::write(cards[0] + "/_REPORT/set-aside/0002/DCIM/4.mov.2", "of a run that died");
    fs::create_directories(cards[0] + "/_REPORT/set-aside/0002/SUB"); // made for a move that a power cut took back
    shoot({{"SUB/6.mov", 10}});
    EXPECT_TRUE(append(cards).safeToFormat);
    ASSERT_TRUE(job->report()->setAside);
    EXPECT_THAT(*job->report()->setAside,
                testing::ElementsAre(SetAsideCopy{0, "DCIM/4.mov", "_REPORT/set-aside/0002/DCIM/4.mov.2"},
                                     SetAsideCopy{1, "DCIM/4.mov", "_REPORT/set-aside/0002/DCIM/4.mov"},
                                     SetAsideCopy{0, "DCIM/5.mov", "_REPORT/set-aside/0002/DCIM/5.mov"},
                                     SetAsideCopy{1, "DCIM/5.mov", "_REPORT/set-aside/0002/DCIM/5.mov"},
                                     SetAsideCopy{1, "_REPORT/offload_report_0002.txt",
                                                  "_REPORT/set-aside/0002/_REPORT/offload_report_0002.txt"}));
    EXPECT_EQ(test::FileTree::read(cards[1] + "/_REPORT/set-aside/0002/DCIM/4.mov"), "notes");
}

// A report that stands cannot grow: what the card got since is left to the next append, and said.
TEST_F(EarlierBackup, AGenerationWithAReportTakesNoMoreFiles) {
    ASSERT_EQ(copy().phase, Phase::done);
    for (const std::size_t d : {0U, 1U}) // died between the reports and the chain
        replaceIn(reportOf(d), "{", "{\"verifyPending\": true,");
    shell("rm -r */*/CARD/ascmhl */*/CARD/_REPORT/CARD.xxh64");
    shoot({{"DCIM/4.mov", 1'500'000}});
    const JobStatus finished = append(cards);
    EXPECT_EQ(finished.phase, Phase::done);
    EXPECT_THAT(finished.warning().value_or(""), HasSubstr("1 file left for the next append"));
    EXPECT_FALSE(finished.safeToEject || finished.safeToFormat);
    EXPECT_EQ(finished.copy->readBytes, 0);
    EXPECT_EQ(job->report()->files.size(), 3U);
    EXPECT_EQ(job->report()->kind, "copy");
    EXPECT_TRUE(append(cards).safeToFormat);
    EXPECT_EQ(MHLReader::read(cards[1]).lastChained(), 2);

    for (const std::size_t d : {0U, 1U}) // an older report that nothing will finish: its files are proved anew
        replaceIn(reportOf(d), "{", "{\"verifyIncomplete\": true,");
    EXPECT_TRUE(append(cards).safeToFormat);
    EXPECT_EQ(job->report()->files.size(), 3U);
    EXPECT_TRUE(append(cards).safeToFormat);
    EXPECT_EQ(MHLReader::read(cards[1]).lastChained(), 3);
}

// Its lines are the only ones: those of the files before it still waited for a flush.
TEST_F(EarlierBackup, AFileThatADeadRunHadBegunAndTheCardLostIsNamed) {
    shoot({{"big.mov", 12 * mebibyte}});
    dieAtBlockNine();
    fs::remove(temp / "card/big.mov");
    const JobStatus finished = append(cards);
    EXPECT_EQ(finished.phase, Phase::done) << finished.error.value_or("");
    EXPECT_FALSE(finished.safeToEject || finished.safeToFormat);
    EXPECT_EQ(job->report()->files.back().sourceError, "it was on the card when the backup began, and is gone");
    for (const std::string& card : cards) {
        EXPECT_FALSE(IO::exists(card + "/.big.mov.offload-part"));
        EXPECT_TRUE(IO::exists(card + "/_REPORT/set-aside/0001/.big.mov.offload-part"));
    }
    const JobStatus again = append(cards);
    EXPECT_EQ(again.phase, Phase::done) << again.error.value_or("");
    EXPECT_FALSE(again.safeToEject || again.safeToFormat);
}

TEST_F(EarlierBackup, ALargeFileGoesOnFromItsLastCheckpoint) {
    for (const bool isBad : {false, true}) { // a block on one of the disks
        SCOPED_TRACE(isBad);
        shell("rm -rf a/* b/*");
        shoot({{"big.mov", 12 * mebibyte + 3}});
        dieAtBlockNine();
        if (isBad)
            test::FileTree::flipBit(cards[1] + "/.big.mov.offload-part", 5 * mebibyte);
        const JobStatus status = append(cards);
        EXPECT_TRUE(status.safeToFormat) << status.error.value_or("");
        EXPECT_EQ(job->engine().resumedBytes() % static_cast<std::int64_t>(2 * mebibyte), 0);
        const auto rest = status.copy->readBytes + job->engine().resumedBytes();
        EXPECT_TRUE(isBad ? job->engine().resumedBytes() == 0
                          : job->engine().resumedBytes() >= static_cast<std::int64_t>(8 * mebibyte));
        EXPECT_EQ(rest, fs::file_size(temp / "card/big.mov") + fs::file_size(temp / "card/3.txt") + 3'100'000);
        for (const auto& card : cards)
            EXPECT_TRUE(test::FileTree::read(card + "/big.mov") == test::FileTree::read(temp / "card/big.mov"));
    }
}

} // namespace
} // namespace velmora
