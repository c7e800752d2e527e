#include "job/EarlierBackup.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "job/SetAside.h"
#include "memory/CardRecord.h"
#include "mhl/MHLReader.h"
#include "records/OffloadReport.h"

// What a repair does with the earlier backup that it finds.
namespace velmora {
namespace {

TEST_F(EarlierBackup, AnAppendAddsAGenerationAndARepairMendsOne) {
    ASSERT_EQ(copy().phase, Phase::done);
    const std::string first = test::FileTree::read(reportOf(0));
    shoot({{"DCIM/4.mov", 1'500'000}, {"NEW/sub/z", 0}});
    ASSERT_TRUE(append(cards).safeToFormat);
    const auto again = append({cards[0] + "/", cards[1] + "/"});
    EXPECT_THAT(again.note.value_or(""), testing::StartsWith("Nothing new — the backup is complete."));
    EXPECT_TRUE(again.safeToFormat);

    test::FileTree::flipBit(cards[1] + "/DCIM/4.mov", 1'200'000);
    const auto parted = disks(); // one disk alone would be a generation ahead of the other
    EXPECT_THAT(repair({cards[1]}).error.value_or(""),
                HasSubstr("repair … --into \"" + cards[1] + "\" --into \"" + cards[0] + "\")"));
    EXPECT_EQ(disks(), parted);
    const std::string bad = test::FileTree::read(cards[1] + "/DCIM/4.mov");
    fs::remove(cards[0] + "/3.txt");
    EXPECT_TRUE(repair(cards).safeToFormat);
    for (const auto& card : cards) {
        for (const auto& [path, content] : contents(temp / "card"))
            EXPECT_TRUE(path.ends_with('/') || test::FileTree::read(RelativePath::join(card, path)) == content) << path;
        const CardRecord record = CardRecord::load(card);
        EXPECT_EQ(record.generations.size(), 3U);
        EXPECT_EQ(record.files.size(), 5U);
        EXPECT_TRUE(record.verified() && record.failedFiles().empty());
        EXPECT_EQ(MHLReader::read(card).lastChained(), 3);
        EXPECT_EQ(record.generations.back().report->kind, "repair");
    }
    EXPECT_EQ(test::FileTree::read(reportOf(0)), first);
    const auto aside = job->report()->setAside;
    ASSERT_TRUE(aside && aside->size() == 1);
    EXPECT_EQ(test::FileTree::read(cards[1] + "/" + aside->front().movedTo), bad);

    // A text that somebody left under the name of the next report moves aside.
    keep();
    const std::string text = cards[1] + "/_REPORT/offload_report_0004.txt";
    test::FileTree::write(text, "mine");
    fs::remove(cards[0] + "/3.txt");
    EXPECT_TRUE(repair(cards).safeToFormat);
    EXPECT_EQ(test::FileTree::read(cards[1] + "/_REPORT/set-aside/0004/_REPORT/offload_report_0004.txt"), "mine");
    restore();

    // A card that fails while it is copied harms no good copy, and the next repair mends the bad one.
    test::FileTree::flipBit(cards[1] + "/DCIM/4.mov", 5);
    options.beforeFileCopy = [&](std::int64_t) { shell("mv card/DCIM/4.mov away"); };
    EXPECT_FALSE(repair(cards).safeToEject);
    EXPECT_EQ(job->report()->files.front().destinations, (std::vector<std::string>{"verified", "failed"}));
    options.beforeFileCopy = {};
    shell("cp -a away card/DCIM/4.mov");
    EXPECT_TRUE(repair(cards).safeToFormat) << job->status().error.value_or("");
    restore();

    // A card that changes between the plan and the copy: what was planned is not what would be written.
    test::FileTree::flipBit(cards[1] + "/DCIM/4.mov", 5);
    options.beforeFileCopy = [&](std::int64_t) { test::FileTree::flipBit(temp / "card/DCIM/4.mov", 9); };
    EXPECT_FALSE(repair(cards).safeToFormat);
    EXPECT_THAT(job->report()->files.front().sourceError.value_or(""), HasSubstr("the card has different content"));

    // A card that is swapped while the backup and the card are compared, or an append is planned.
    options.beforeFileCopy = {};
    for (const bool appends : {false, true}) {
        restore();
        appends ? shoot({{"later.mov", 10}}) : test::FileTree::flipBit(cards[1] + "/DCIM/4.mov", 5);
        const auto before = disks();
        options.cardIdentity = [asked = 0](const std::string&) mutable {
            return std::optional<std::string>(asked++ == 0 ? "A" : "B");
        };
        const JobStatus swapped = appends ? append(cards) : repair(cards);
        EXPECT_THAT(swapped.error.value_or(""),
                    HasSubstr("swapped or removed — nothing was copied. Insert the original"));
        EXPECT_EQ(disks(), before);
    }
}

// A card that was held against the backup and is another one, or could not be read, leaves its failures there.
TEST_F(EarlierBackup, TheRightCardClearsWhatAnotherOneLeft) {
    options.cardMedium = {};
    ASSERT_EQ(copy().phase, Phase::done);
    const auto before = contents(temp / "a");
    // One that was another from the start, or cannot be read, leaves nothing.
    keep();
    test::FileTree::flipBit(temp / "card/DCIM/2.mov", 9);
    EXPECT_EQ(append(cards, true).errorCode, PreflightCode::appendOtherCard);
    EXPECT_THAT(job->status().error.value_or(""), HasSubstr("DCIM/2.mov: the card has different content"));
    EXPECT_EQ(contents(temp / "a"), before);
    restore();
    EXPECT_TRUE(append(cards, true).safeToFormat) << testing::PrintToString(job->status().warnings);
    // The same without being asked to compare, where copies were never verified; what cannot be read fails by itself.
    JobConfig unread = config();
    unread.cardName = "UNREAD";
    unread.verify = false;
    ASSERT_EQ(run(unread).phase, Phase::done);
    const std::vector<std::string> unproved{temp / "a/2026-03-14/UNREAD", temp / "b/2026-03-14/UNREAD"};
    const auto written = disks();
    test::FileTree::flipBit(temp / "card/DCIM/2.mov", 9);
    EXPECT_EQ(append(unproved).errorCode, PreflightCode::appendOtherCard);
    EXPECT_EQ(disks(), written);
    restore();
    options.beforeFileCopy = [&](std::int64_t file) {
        if (file == 0)
            test::FileTree::flipBit(temp / "card/DCIM/2.mov", 9);
    };
    EXPECT_FALSE(append(cards, true).safeToFormat);
    EXPECT_EQ(append(cards, true).phase, Phase::failed) << "it is another card now";
    options.beforeFileCopy = {};
    test::FileTree::flipBit(temp / "card/DCIM/2.mov", 9);
    EXPECT_TRUE(repair(cards).safeToFormat) << job->status().error.value_or("");
    for (const auto& [path, content] : before)
        EXPECT_TRUE(path.ends_with('/') || path.find("/_REPORT/") != std::string::npos ||
                    path.find("/ascmhl/") != std::string::npos || path.ends_with(".xxh64") ||
                    test::FileTree::read(temp / ("a/" + path)) == content)
            << path;
}

// It takes hours, in which another run may find fault with a folder that was not named.
TEST_F(EarlierBackup, ARepairAsksTheFoldersBesideItWhenItEnds) {
    ASSERT_TRUE(copy().safeToFormat);
    append({cards[0]}, true);
    for (const bool meanwhile : {false, true}) {
        test::FileTree::flipBit(cards[0] + "/DCIM/2.mov", 500);
        options.crashAfterBlock = [&, done = !meanwhile](std::int64_t, std::int64_t) mutable {
            if (!std::exchange(done, true))
                replaceIn(reportOf(1), "\"verified\",", "\"failed\",");
            return false;
        };
        EXPECT_EQ(repair({cards[0]}).safeToFormat, !meanwhile) << job->status().error.value_or("");
    }
    EXPECT_THAT(job->status().warning().value_or(""), HasSubstr(cards[1]));
}

// A record of failure is no proof that the copy is bad now, and a name that no record can hold no reason to mend
// nothing.
TEST_F(EarlierBackup, ARepairKeepsGoodCopiesAndPassesOverWhatTheCardNeverGave) {
    test::FileTree::write(temp / "card/bad\xff", "x");
    ASSERT_EQ(copy().phase, Phase::done);
    for (const std::size_t d : {0U, 1U})
        replaceIn(reportOf(d), "\"verified\",\n        \"verified\"", "\"verified\",\n        \"pending\""); // 3.txt
    test::FileTree::flipBit(cards[0] + "/DCIM/2.mov", 7);
    EXPECT_FALSE(repair(cards).safeToFormat) << "the card still holds what no backup can";
    ASSERT_TRUE(job->report()->setAside);
    EXPECT_THAT(*job->report()->setAside,
                testing::ElementsAre(SetAsideCopy{0, "DCIM/2.mov", "_REPORT/set-aside/0002/DCIM/2.mov"}));
    EXPECT_EQ(test::FileTree::read(cards[0] + "/DCIM/2.mov"), test::FileTree::read(temp / "card/DCIM/2.mov"));
    EXPECT_EQ(CardRecord::load(cards[0]).find("3.txt", true)->file->destinations,
              (std::vector<std::string>{"verified", "verified"}));
}

// What lies aside in great numbers must not hold a cancelled run for long; the few of an ordinary run are listed.
TEST_F(EarlierBackup, ACancelledRunListsTheFirstThousandThatLieAside) {
    OffloadReport report;
    report.destinations.resize(1);
    report.destinations[0].cardPath = cards[0];
    for (const std::size_t count : {999U, 1001U}) {
        for (std::size_t n = 0; n < count; ++n)
            test::FileTree::write(cards[0] + "/_REPORT/set-aside/0001/" + std::to_string(n), "");
        const auto problems = SetAside::list(report, [] { return true; });
        EXPECT_EQ(report.setAside->size(), 999U);
        EXPECT_EQ(join(problems, "").find("in full (cancelled)") != std::string::npos, count > 999);
    }
}

TEST_F(EarlierBackup, ARepairMakesABrokenReportAnewFromAnotherDisk) {
    ASSERT_EQ(copy().phase, Phase::done);
    shoot({{"DCIM/4.mov", 1000}});
    ASSERT_TRUE(append(cards).safeToFormat);
    keep();
    for (const std::int64_t generation : {1, 2}) {
        restore();
        const std::string broken = ResumePlanner::reportPath(cards[0], generation);
        test::FileTree::write(broken, generation == 1 ? "{ broken" : "");
        const std::string name = "/_REPORT/" + std::string(RelativePath::name(broken));
        const JobStatus status = repair(cards);
        EXPECT_TRUE(status.safeToFormat) << status.error.value_or("");
        EXPECT_THAT(status.warning().value_or(""), HasSubstr("could not be read and was made anew from " + cards[1]));
        EXPECT_EQ(test::FileTree::read(broken), test::FileTree::read(cards[1] + name));
        EXPECT_EQ(test::FileTree::read(cards[0] + "/_REPORT/set-aside/000" + std::to_string(generation) + name),
                  generation == 1 ? "{ broken" : "");
        EXPECT_TRUE(append(cards).safeToFormat);
    }
    restore(); // another report than the one that the history proves
    test::FileTree::write(reportOf(0), "{ broken");
    shell("sed -i -E '/xxh64\": /s/: .{5}/: \"ffff/' b/2026-03-14/CARD/_REPORT/offload_report.json");
    const auto before = disks();
    EXPECT_EQ(repair(cards).errorCode, PreflightCode::other);
    EXPECT_EQ(disks(), before);
}

} // namespace
} // namespace velmora
