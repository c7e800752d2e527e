#include "job/EarlierBackup.h"

#include "memory/CardRecord.h"
#include "memory/HistoryRecorder.h"
#include "memory/HistoryStore.h"
#include "verify/BackupVerifier.h"
#include "verify/VerificationTrace.h"

// What the card history knows, or has lost, of the earlier backup.
namespace velmora {
namespace {

// What a verification found is over when a later run has read every copy of the folder and found it good; also where
// the card history holds no record of the backup.
class Verified : public EarlierBackup, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, Verified, testing::Bool());

TEST_P(Verified, AReadingOfAllCopiesEndsWhatAVerificationFound) {
    recorded = GetParam();
    HistoryRecorder recorder;
    services = {&recorder, temp / "settings"};
    const auto verify = [&] {
        HistoryStore store(temp / "settings", 2);
        VerificationTrace::record(store, BackupVerifier::verify(cards[0], mebibyte, {}, {}), {});
    };
    const auto hasFailed = [&] {
        const auto known = HistoryStore(temp / "settings", 2).recall();
        return known.verificationOf(cards[0], CardRecord::load(cards[0]).volumeSerial).value().failed.has_value();
    };
    JobConfig unread = config();
    unread.verify = false;
    unread.recordHistory = recorded;
    ASSERT_EQ(run(unread).phase, Phase::done);
    const std::string good = test::FileTree::read(cards[0] + "/3.txt");
    const auto time = fs::last_write_time(cards[0] + "/3.txt");
    const auto spoil = [&](bool bad) {
        test::FileTree::flipBit(cards[0] + "/3.txt", 1);
        fs::last_write_time(cards[0] + "/3.txt", time);
        if (bad)
            verify();
    };
    spoil(true);
    ASSERT_TRUE(hasFailed());
    spoil(false); // the disk reads well again
    EXPECT_TRUE(append(cards).safeToFormat) << job->status().warning().value_or("");
    EXPECT_FALSE(hasFailed());
    spoil(true);
    EXPECT_THAT(append(cards).warning().value_or(""), HasSubstr("did not pass its verification"));
    EXPECT_THAT(job->status().note.value_or(""), testing::StartsWith("Nothing new on the card."));
    spoil(false);
    const JobStatus status = repair(cards);
    EXPECT_TRUE(status.safeToFormat) << status.warning().value_or("");
    EXPECT_EQ(status.note,
              "Nothing to repair — every file is good on every destination. Every copy was read just now.");
    EXPECT_FALSE(hasFailed());
    EXPECT_EQ(CardRecord::load(cards[0]).generations.size(), 2U) << "reading alone is no generation";
    // The copies of both disks were read when the later verification of the two had passed.
    HistoryStore store(temp / "settings", 2);
    for (const std::size_t d : {0U, 1U}) {
        const auto serial = CardRecord::load(cards[d]).volumeSerial;
        VerificationTrace::enter(store, {cards[d], serial, Timestamp{4'000'000'000, 0}, {}, {}}, {});
        EXPECT_EQ(append(cards).note.value_or("").find("last read on 2096-") != std::string::npos, d == 1);
    }
    test::FileTree::write(temp / "settings/verifications.json", R"({"version": 2})");
    EXPECT_THAT(repair(cards).warning().value_or(""),
                testing::AllOf(HasSubstr("could not be told that every copy in " + cards[0] + ", " + cards[1]),
                               HasSubstr("a newer version of Velmora has written it")));
}

// A history that was lost may have known worse of any copy that nobody has read since.
TEST_F(EarlierBackup, WhatALostHistoryMayHaveKnownDenies) {
    HistoryRecorder recorder;
    services = {&recorder, temp / "settings"};
    ASSERT_TRUE(copy().safeToFormat);
    const auto lose = [&](const std::string& name) {
        test::FileTree::write(temp / ("settings/" + name), "{");
        for (const JobStatus& status : {append(cards), append(cards)}) {
            EXPECT_TRUE(status.safeToEject) << status.error.value_or("");
            EXPECT_FALSE(status.safeToFormat);
            EXPECT_THAT(status.warning().value_or(""), HasSubstr("set aside as " + temp / ("settings/" + name)));
            EXPECT_EQ(status.remedy, Remedy::repair);
        }
        std::this_thread::sleep_for(std::chrono::seconds(1)); // records count whole ones
    };
    lose("history.json");
    EXPECT_TRUE(repair(cards).safeToFormat) << "all copies were read";
    EXPECT_TRUE(append(cards).safeToFormat);
    lose("verifications.json");
    HistoryStore store(temp / "settings", 2);
    for (const std::string& card : cards) {
        EXPECT_FALSE(append(cards).safeToFormat);
        VerificationTrace::record(store, BackupVerifier::verify(card, mebibyte, {}, {}), {});
    }
    EXPECT_TRUE(append(cards).safeToFormat);
    // What it knew of a folder that is not named now counts as well.
    lose("verifications.json");
    VerificationTrace::record(store, BackupVerifier::verify(cards[0], mebibyte, {}, {}), {});
    EXPECT_FALSE(append({cards[0]}).safeToFormat);
    EXPECT_THAT(job->status().warning().value_or(""), HasSubstr("the copies in " + cards[1] + " were not all read"));
    for (const auto& file : fs::directory_iterator(temp / "settings"))
        if (file.path().filename().string().find(".corrupt-") != std::string::npos)
            fs::remove(file);
    EXPECT_TRUE(append({cards[0]}).safeToFormat) << "whoever deletes the file needs it no more";
    // A full copy needs nothing of it, and says that it is lost.
    test::FileTree::write(temp / "settings/history.json", "{");
    EXPECT_TRUE(copy().safeToFormat);
    EXPECT_THAT(job->status().warning().value_or(""), HasSubstr("This copy does not depend on it"));
}

} // namespace
} // namespace velmora
