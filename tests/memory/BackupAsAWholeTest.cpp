#include "memory/BackupCheck.h"
#include "memory/HistoryRecords.h"
#include "memory/HistoryView.h"
#include "platform/IO.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

SourceFile fileOf(const std::string& path, std::int64_t size = 10) { return {path, size, Timestamp{1'700'000'000, 0}}; }

OffloadReport reportOf(const std::vector<SourceFile>& files, std::int64_t generation, const std::string& status,
                       const std::string& cardPath) {
    OffloadReport report;
    report.generation = generation;
    report.kind = generation > 1 ? "append" : "copy";
    report.verified = status == "verified";
    report.totalFiles = static_cast<std::int64_t>(files.size());
    report.destinations.emplace_back();
    report.destinations.back().cardPath = cardPath;
    for (const SourceFile& file : files) {
        OffloadReport::FileEntry entry;
        entry.path = file.relPath;
        entry.size = file.size;
        entry.modified = file.mtime;
        entry.destinations = {status};
        entry.errors.resize(1);
        report.files.push_back(std::move(entry));
    }
    return report;
}

class WholeBackup : public ::testing::Test {
protected:
    void stand(const OffloadReport& report) {
        IO::mkdirs(card() + "/_REPORT");
        IO::writeFileDurably(card() + "/_REPORT/" + OffloadReport::jsonName(report.generationNumber()),
                             report.jsonData());
    }
    std::string card() const { return folder_.path() + "/A001"; }
    BackupCheck check(const std::vector<SourceFile>& files) {
        SourceScan scan;
        scan.files = files;
        return BackupCheck::of(scan, {CardRecord::load(card(), {}, std::optional<std::string>())}, {}, {}, false);
    }

    test::TempFolder folder_;
};

TEST_F(WholeBackup, ANameThatDiffersInCaseOnlyIsAnotherFile) {
    stand(reportOf({fileOf("A.MOV")}, 1, "verified", card()));
    EXPECT_EQ(check({fileOf("A.MOV")}).notInBackup, 0);
    EXPECT_EQ(check({fileOf("a.mov")}).notInBackup, 0) << "a card may fold the case of its names";
    const BackupCheck both = check({fileOf("A.MOV"), fileOf("a.mov")});
    EXPECT_EQ(both.notInBackup, 1);
    ASSERT_EQ(both.covered.size(), 1U);
    EXPECT_EQ(both.covered[0].relPath, "A.MOV");
    stand(reportOf({fileOf("a.mov")}, 2, "verified", card()));
    EXPECT_EQ(check({fileOf("A.MOV"), fileOf("a.mov")}).notInBackup, 0);
    // A card that lost one of the two shows the other alone: neither stands for its twin.
    for (const std::size_t lost : {0U, 1U}) {
        OffloadReport report = reportOf({fileOf("A.MOV"), fileOf("a.mov")}, 1, "verified", card());
        report.files[lost].destinations = {"failed"};
        fs::remove_all(card());
        stand(report);
        const BackupCheck one = check({fileOf(report.files[1 - lost].path)});
        EXPECT_EQ(one.lost, std::vector<std::string>{report.files[lost].path});
        EXPECT_EQ(one.state.failed + one.notInBackup, 0);
        // A repair that mends one of them leaves the record of the other.
        OffloadReport mended = reportOf({fileOf(report.files[lost].path)}, 2, "verified", card());
        mended.kind = "repair";
        stand(mended);
        EXPECT_TRUE(CardRecord::load(card()).find("A.MOV", true) && CardRecord::load(card()).find("a.mov", true));
    }
}

TEST_F(WholeBackup, TheHistoryKeepsTheVerdictAndWhatFailed) {
    for (const std::string earlier : {"verified", "written", "failed"}) {
        const OffloadReport first = reportOf({fileOf("A.MOV")}, 1, earlier, card());
        const OffloadReport second = reportOf({fileOf("B.MOV")}, 2, "verified", card());
        stand(first);
        stand(second);
        const BackupCheck whole = check({fileOf("A.MOV"), fileOf("B.MOV"), fileOf("LATER.MOV")});
        const HistoryRecords::Verdict verdict{earlier == "verified", true, false};
        // The history of another computer made the backup: there is no entry to add to.
        const auto change = HistoryRecords::finished(nullptr, "x", second, whole.covered, {}, {}, whole, verdict);
        EXPECT_EQ(change.entry.verified, earlier == "verified") << earlier;
        EXPECT_EQ(change.entry.success, earlier != "failed") << earlier;
        EXPECT_EQ(change.entry.safeToEject, true);
        EXPECT_EQ(change.entry.safeToFormat, false);
        EXPECT_FALSE(change.entry.unfinished);
        EXPECT_EQ(change.entry.generations.size(), 2U);
        EXPECT_EQ(change.entry.files, 2);
        ASSERT_TRUE(change.files);
        OffloadReport pending = second;
        pending.verifyPending = true;
        EXPECT_TRUE(HistoryRecords::finished({}, "x", pending, whole.covered, {}, {}, whole, {}).entry.unfinished);
        // A repair reads every copy: what verifications found is over when all is verified, and only then.
        OffloadReport repair = second;
        repair.kind = "repair";
        repair.finished = {2, 0};
        const HistoryEntry failed = HistoryRecords::verified(change.entry, {card(), {}, {}, Timestamp{1, 0}, "1"});
        const auto mended = HistoryRecords::finished(&failed, "x", repair, whole.covered, {}, {}, whole, verdict);
        EXPECT_EQ(Remembered({mended.entry}, {}, {}).verificationOf(card(), {}).value().failed.has_value(),
                  earlier != "verified");
        EXPECT_EQ(change.files->size(), 2U) << "what the backup lacks must be new when the card comes back";
    }
}

TEST(HistoryView, GroupsByDayNewestFirst) {
    std::vector<HistoryEntry> entries(3);
    const char* const dates[] = {"2026-03-14", "2026-03-15", "2026-03-14"};
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entries[i].id = std::to_string(i);
        entries[i].date = dates[i];
        entries[i].success = true;
        entries[i].verified = i != 2;
    }
    const auto days = HistoryView::build(entries);
    ASSERT_EQ(days.size(), 2U);
    EXPECT_EQ(days[0].date, "2026-03-15");
    ASSERT_EQ(days[1].rows.size(), 2U);
    EXPECT_EQ(days[1].rows[0].id, "0");
    EXPECT_EQ(days[1].rows[1].status, "NOT VERIFIED");
    EXPECT_EQ(days[1].rows[1].tone, HistoryTone::warning);
}

} // namespace
} // namespace velmora
