#include "memory/CardRecord.h"
#include "base/Hex.h"

#include "base/Text.h"
#include "blocks/ManifestFile.h"
#include "memory/AppendPlanner.h"
#include "memory/BackupCheck.h"
#include "memory/BackupPlaces.h"
#include "memory/ResumePlanner.h"
#include "mhl/MHL.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"

namespace velmora {
namespace {

constexpr std::int64_t block = 4096;

SourceFile source(const std::string& path = "a.mov", std::int64_t size = 6 * block) { return {path, size, {1000, 0}}; }

ManifestRecord record(std::uint64_t content, std::int64_t modified = 1000) {
    ManifestRecord line;
    line.path = "a.mov";
    line.size = 6 * block;
    line.modified = {modified, 0};
    line.xxh64 = Hex::of64(content);
    line.blockSize = block;
    line.blocks = ManifestRecord::hex({content, 2, 3, 4, 5, 6});
    return line;
}

PartCheckpoint part(std::vector<std::uint64_t> blocks, std::int64_t modified = 1000, std::int64_t size = block) {
    return {"a.mov", 6 * block, {modified, 0}, size, std::move(blocks)};
}

Unfinished openOn(const std::vector<std::optional<ManifestRecord>>& files,
                  const std::vector<std::optional<PartCheckpoint>>& parts = {}) {
    Unfinished open;
    for (std::size_t d = 0; d < std::max(files.size(), parts.size()); ++d) {
        open.files.emplace_back();
        open.parts.emplace_back();
        if (d < files.size() && files[d])
            open.files[d].emplace(pathKey(files[d]->path), *files[d]);
        if (d < parts.size() && parts[d])
            open.parts[d].emplace(pathKey(parts[d]->path), *parts[d]);
    }
    return open;
}

TEST(ResumePlanner, WritesAgainWhatNoRecordProves) {
    ManifestRecord torn = record(1);
    torn.blocks.pop_back();
    struct Case {
        const char* what;
        std::vector<std::optional<ManifestRecord>> records;
        std::vector<std::int64_t> sizes; // on the disks; below 0: no file
        std::vector<bool> write;
        bool known;
    };
    const std::int64_t whole = 6 * block;
    for (const Case& c : std::vector<Case>{
             {"safe everywhere", {record(1), record(1)}, {whole, whole}, {false, false}, true},
             {"one disk lacks the line", {record(1), {}}, {whole, whole}, {false, true}, true},
             {"one disk lacks the file", {record(1), record(1)}, {whole, -1}, {false, true}, true},
             {"one copy is short", {record(1), record(1)}, {block, whole}, {true, false}, true},
             {"the disks disagree", {record(1), record(9)}, {whole, whole}, {true, true}, false},
             {"shot again since", {record(1, 2000), record(1, 2000)}, {whole, whole}, {true, true}, false},
             {"one line holds too few blocks", {record(1), torn}, {whole, whole}, {true, true}, false},
             {"nobody has it", {{}, {}}, {-1, -1}, {true, true}, false},
         }) {
        const auto onDisk = [&](std::size_t d, const SourceFile&) {
            return c.sizes[d] < 0 ? std::nullopt : std::optional(c.sizes[d]);
        };
        const auto tasks = ResumePlanner::decide(openOn(c.records), {source()}, onDisk, false, block);
        EXPECT_EQ(tasks.front().write, c.write) << c.what;
        EXPECT_EQ(tasks.front().known.has_value(), c.known) << c.what;
    }
}

TEST(ResumePlanner, GoesOnFromTheLastBlockThatAllWhoNeedTheFileHave) {
    struct Case {
        const char* what;
        std::vector<std::optional<PartCheckpoint>> parts;
        std::vector<bool> write;
        std::size_t blocks; // 0: from the beginning
    };
    for (const Case& c : std::vector<Case>{
             {"at one place", {part({1, 2, 3, 4}), part({1, 2, 3, 4})}, {true, true}, 4},
             {"at two places: the lower", {part({1, 2, 3, 4}), part({1, 2})}, {true, true}, 2},
             {"up to where they part", {part({1, 2, 9, 4}), part({1, 2, 3, 4})}, {true, true}, 2},
             {"different from the first", {part({9, 2}), part({1, 2})}, {true, true}, 0},
             {"one has none", {part({1, 2}), {}}, {true, true}, 0},
             {"the one without does not need it", {part({1, 2}), {}}, {true, false}, 2},
             {"of another size of blocks", {part({1, 2}), part({1}, 1000, 2 * block)}, {true, true}, 0},
             {"of another file", {part({1, 2}), part({1, 2}, 2000)}, {true, true}, 0},
             {"more blocks than the file", {part({1, 2, 3, 4, 5, 6, 7, 8})}, {true}, 6},
             {"nobody needs it", {part({1, 2}), part({1, 2})}, {false, false}, 0},
         }) {
        const auto found = ResumePlanner::commonCheckpoint(openOn({}, c.parts), source(), c.write, false, block);
        EXPECT_EQ(found ? found->blocks.size() : 0, c.blocks) << c.what;
    }
}

TEST(Unfinished, KnowsOnlyWhatItsLinesAgreeWith) {
    const Unfinished open = openOn({record(1), {}}, {{}, part({1, 2})});
    EXPECT_NE(open.partOf(1, source(), false), nullptr);
    EXPECT_EQ(open.fileOf(0, source("b.mov"), false), nullptr);
    EXPECT_TRUE(open.mentions("A.MOV"));
    SourceFile later = source();
    later.mtime.seconds += 7200;
    EXPECT_EQ(open.fileOf(0, later, false), nullptr);
    EXPECT_NE(open.fileOf(0, later, true), nullptr); // a card that keeps local time
}

class CardRecords : public testing::Test {
protected:
    test::TempFolder temp;
    std::string card = temp / "a/2026-03-14/CARD";
    std::optional<std::optional<std::string>> serial{std::in_place, "S1"};

    static OffloadReport::FileEntry entry(const std::string& path, const std::string& here, const std::string& there) {
        OffloadReport::FileEntry file;
        file.path = path;
        file.size = 10;
        file.modified = {1000, 0};
        file.destinations = {here, there};
        file.errors.resize(2);
        return file;
    }
    OffloadReport report(std::int64_t generation, std::vector<OffloadReport::FileEntry> files) const {
        OffloadReport report;
        report.generation = generation;
        report.verified = true;
        report.started = {100 * generation, 0};
        report.finished = {100 * generation + 50, 0};
        for (const char* root : {"a", "b"}) {
            report.destinations.emplace_back();
            report.destinations.back().root = temp / root;
            report.destinations.back().cardPath = temp / root + "/2026-03-14/CARD";
        }
        report.files = std::move(files);
        return report;
    }
    void put(const OffloadReport& report, const std::string& in, std::int64_t number) const {
        test::FileTree::write(in + "/_REPORT/" + OffloadReport::jsonName(number), report.jsonData());
    }
};

TEST_F(CardRecords, AreReadOnceARunAndLetNoCancelWait) {
    const OffloadReport good = report(1, {entry("a.mov", "verified", "verified")});
    test::FileTree::write(card + "/a.mov", "0123456789");
    put(good, card, 1);
    MHL::write(good, card, {5, 0}, "cart");
    ManifestFile::append(card, std::vector<ManifestRecord>(1));
    const FolderStates states;
    FolderState& folder = states.of(card + "/");
    EXPECT_TRUE(folder.report(1) && folder.history()->exists && folder.committed() == 1);
    EXPECT_THROW(folder.report(2), IOError);
    put(good, card, 2);
    std::filesystem::remove_all(card + "/ascmhl");
    EXPECT_TRUE(folder.report(1) && folder.history()->exists && folder.committed() == 1);
    EXPECT_THROW(folder.report(2), IOError) << "one answer for everybody who asks";
    states.forget();
    EXPECT_FALSE(states.of(card).history()->exists);
    EXPECT_NO_THROW(states.of(card).report(2));

    MHL::write(good, card, {5, 0}, "cart");
    std::filesystem::remove(card + "/_REPORT/" + OffloadReport::jsonName(2));
    const FolderStates stopped([] { return true; });
    EXPECT_THROW(stopped.of(card).history(), Cancelled);
    EXPECT_THROW(CardRecord::load(stopped.of(card)), Cancelled);
    EXPECT_THROW(ResumePlanner::look({card}, stopped), Cancelled);
    EXPECT_THROW(BackupPlaces::beside({}, {{card, {}}}, {}, stopped), Cancelled);
    EXPECT_THROW(BackupCheck::of({}, {}, {{card, {}}}, {}, false, stopped), Cancelled);
    // Whichever question is answered so, nothing on the way takes it for a fault of the records.
    test::FileTree::write(temp / "source/a.mov", "0123456789");
    AppendPlanner::Ask ask;
    ask.source = temp / "source";
    ask.cardPaths = {card};
    std::string end = "cancelled";
    int questions = 0;
    for (; end == "cancelled"; ++questions) {
        std::atomic<int> left = questions;
        const FolderStates run([&left] { return left-- <= 0; });
        end = test::refusal<std::exception>([&] { AppendPlanner::plan(ask, run); });
    }
    EXPECT_GT(questions, 3);
    EXPECT_THAT(end, testing::StartsWith("Append stopped")) << "the card's file has another time";
}

TEST_F(CardRecords, MergesGenerationsAndKeepsTheNewestStateOfAFile) {
    EXPECT_TRUE(CardRecord::load(card, {}, serial).reportMissing);
    OffloadReport first = report(1, {entry("a.mov", "failed", "verified"), entry("b.mov", "verified", "verified")});
    first.project = "Film";
    put(first, card, 1);
    EXPECT_EQ(CardRecord::load(card, {}, serial).failedFiles(), std::vector<std::string>{"a.mov"});
    put(report(2, {entry("A.mov", "verified", "verified")}), card, 2); // a repair, under another case
    put(report(4, {entry("c.mov", "verified", "verified")}), card, 4);
    CardRecord record = CardRecord::load(card, {}, serial);
    EXPECT_TRUE(record.failedFiles().empty());
    EXPECT_EQ(record.files.size(), 3U);
    EXPECT_EQ(record.files.at("a.mov").generation, 2);
    EXPECT_EQ(record.highestReportNumber, 4);
    EXPECT_EQ(record.project(), "Film");
    EXPECT_EQ(record.started().seconds, 100);
    EXPECT_EQ(record.finished().seconds, 450);
    // What lies above the limit does not count, and still is seen.
    record = CardRecord::load(card, 1, serial);
    EXPECT_EQ(record.generations.size(), 1U);
    EXPECT_EQ(record.highestReportNumber, 4);
    // One report that cannot be read leaves the others; the first one does not.
    test::FileTree::write(card + "/_REPORT/offload_report_0002.json", "{}");
    record = CardRecord::load(card, {}, serial);
    EXPECT_EQ(record.problems.size(), 1U);
    EXPECT_FALSE(record.error);
    put(report(1, {}), card, 1);
    EXPECT_EQ(CardRecord::load(card, {}, serial).error,
              "offload_report.json: the list of files or destinations is missing");
}

TEST_F(CardRecords, FindsItsColumnAndHearsOfTheOtherDisks) {
    OffloadReport one = report(1, {entry("a.mov", "verified", "verified")});
    const auto columnOf = [&](const std::string& path, const std::optional<std::string>& disk) {
        return CardRecord::columnOf(one, path, disk);
    };
    EXPECT_EQ(columnOf(temp / "B/./2026-03-14/card/", {}), 1U);
    EXPECT_FALSE(columnOf("/elsewhere/2026-03-14/CARD", {})) << "a clone on a volume without a serial";
    EXPECT_FALSE(columnOf(temp / "b/2026-03-14/CARD", "S2")) << "another volume where the disk without a serial was";
    // Mounted under another name the disk is still itself, and a folder of its old name is not.
    one.destinations[0].cardPath = "/media/dit/RAID/2026-03-14/CARD";
    one.destinations[0].volumeSerial = "S1";
    one.destinations[1].cardPath = "/media/dit/SHUTTLE/2026-03-14/CARD";
    one.destinations[1].volumeSerial = "S2";
    EXPECT_EQ(columnOf("/media/dit/SHUTTLE/2026-03-14/CARD", "S2"), 1U);
    EXPECT_EQ(columnOf("/media/dit/SHUTTLE/2026-03-14/CARD", "S9"), std::nullopt) << "another disk";
    EXPECT_EQ(columnOf("/media/dit/SHUTTLE/2026-03-14/CARD", {}), std::nullopt) << "a volume without a serial";
    EXPECT_EQ(columnOf("/media/dit/RAID/2026-03-15/CARD", "S1"), std::nullopt);
    EXPECT_EQ(columnOf("/media/dit/RAID/more/2026-03-14/CARD", "S1"), std::nullopt) << "a clone on the same disk";
    // What a folder without a column holds was never compared.
    put(one, card, 1);
    const CardRecord clone = CardRecord::load(card, {}, std::optional<std::string>("S9"));
    EXPECT_EQ(clone.statusOf(*clone.find("a.mov", false)), "written");
}

TEST_F(CardRecords, TheWholeCardIsHeldAgainstAllDisks) {
    const std::string other = temp / "b/2026-03-14/CARD";
    const std::vector<SourceFile> same = {{"a.mov", 10, {1000, 0}}};
    struct Case {
        const char* what;
        OffloadReport::FileEntry inBackup;
        std::vector<SourceFile> onCard;
        std::int64_t failed, unverified, notInBackup;
        std::size_t lost;
    };
    for (const Case& c : std::vector<Case>{
             {"all verified", entry("a.mov", "verified", "verified"), same, 0, 0, 0, 0},
             {"written only", entry("a.mov", "verified", "written"), same, 0, 1, 0, 0},
             {"failed on one disk", entry("a.mov", "verified", "failed"), same, 1, 0, 0, 0},
             {"failed, and gone from the card", entry("a.mov", "verified", "failed"), {}, 0, 0, 0, 1},
             {"new and changed files",
              entry("a.mov", "verified", "verified"),
              {{"a.mov", 11, {1000, 0}}, {"b.mov", 1, {}}},
              0,
              0,
              1,
              0},
         }) {
        std::vector<CardRecord> records;
        for (const std::string& folder : {card, other}) {
            put(report(1, {c.inBackup}), folder, 1);
            records.push_back(CardRecord::load(folder, {}, std::optional<std::string>()));
        }
        SourceScan scan;
        scan.files = c.onCard;
        const auto check = BackupCheck::of(scan, records, {}, 1, false);
        EXPECT_FALSE(check.error) << c.what;
        EXPECT_EQ(check.state.failed, c.failed) << c.what;
        EXPECT_EQ(check.state.unverified, c.unverified) << c.what;
        EXPECT_EQ(check.notInBackup, c.notInBackup) << c.what;
        EXPECT_EQ(check.changed.size(), c.notInBackup) << c.what; // one of each, or none
        EXPECT_EQ(check.lost.size(), c.lost) << c.what;
        // Another disk of the backup, which nobody named, must hold the whole card as well.
        const auto away = BackupCheck::of(scan, {records[0]}, {{temp / "gone/2026-03-14/CARD", {}}}, 1, false);
        EXPECT_EQ(away.elsewhere.size(), 1U) << c.what;
    }
    // The copies were last read when the oldest of them was, whichever folder is named first.
    SourceScan scan;
    scan.files = same;
    put(report(2, {entry("a.mov", "verified", "verified")}), card, 2);
    for (const auto& [first, second] : {std::pair(card, other), std::pair(other, card)})
        EXPECT_EQ(BackupCheck::of(scan, {CardRecord::load(first), CardRecord::load(second)}, {}, 2, false).lastRead,
                  (Timestamp{150, 0}));
    test::FileTree::write(other + "/_REPORT/offload_report.json", "{");
    EXPECT_TRUE(BackupCheck::of({}, {CardRecord::load(other)}, {}, 1, false).error);
}

} // namespace
} // namespace velmora
