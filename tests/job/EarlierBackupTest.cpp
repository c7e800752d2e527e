#include "base/RelativePath.h"
#include "blocks/ManifestFile.h"
#include "engine/FolderLocks.h"
#include "job/OffloadJob.h"
#include "memory/CardRecord.h"
#include "memory/HistoryRecorder.h"
#include "memory/HistoryRecords.h"
#include "memory/HistoryStore.h"
#include "memory/ResumePlanner.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "verify/BackupVerifier.h"
#include "verify/VerificationTrace.h"

// What an append and a repair do with the earlier backup that they find.
namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::FileTree::contents;
using testing::HasSubstr;
using Phase = JobStatus::Phase;
constexpr std::size_t mebibyte = 1 << 20;

class EarlierBackup : public testing::Test {
protected:
    test::TempFolder temp;
    test::TempFolder reader{"/dev/shm"}; // the card lies on a volume of its own
    OffloadOptions options;
    JobServices services;
    bool recorded = true; // in the card history
    std::unique_ptr<OffloadJob> job;
    std::vector<std::string> cards{temp / "a/2026-03-14/CARD", temp / "b/2026-03-14/CARD"};

    void SetUp() override {
        ::setenv("VELMORA_SETTINGS_DIR", (temp / "settings").c_str(), 1);
        fs::create_directory_symlink(reader.path(), temp / "card");
        options.checkpointBlocks = 2;
        options.cardMedium = [](const std::string&) { return CardKey{"1A2B3C4D", std::int64_t{64} << 30}; };
        shoot({{"DCIM/1.mov", 2'100'000}, {"DCIM/2.mov", 1'000'000}, {"3.txt", 50}});
        fs::create_directories(temp / "a");
        fs::create_directories(temp / "b");
    }
    void TearDown() override { ::unsetenv("VELMORA_SETTINGS_DIR"); }

    void shoot(const std::vector<test::FileTree::File>& files) { test::FileTree::make(temp / "card", files); }
    JobConfig config() const {
        JobConfig config(temp / "card", {temp / "a", temp / "b"});
        config.date = "2026-03-14";
        config.cardName = "CARD";
        config.chunkMB = 1;
        config.allowSameDevice = true;
        return config;
    }
    JobStatus run(JobConfig config, const std::vector<std::string>* repair = nullptr) {
        job = std::make_unique<OffloadJob>(std::move(config), options, services);
        if (repair)
            job->repairInto(*repair);
        job->run({});
        return job->status();
    }
    JobStatus copy() { return run(config()); }
    JobStatus append(const std::vector<std::string>& paths) {
        JobConfig into = config();
        into.appendInto = paths;
        into.recordHistory = recorded;
        return run(into);
    }
    JobStatus repair(const std::vector<std::string>& paths, bool verify = true) {
        JobConfig into = config();
        into.verify = verify;
        into.recordHistory = recorded;
        return run(into, &paths);
    }
    std::map<std::string, std::string> disks() const {
        auto all = contents(temp / "a");
        for (const auto& [path, content] : contents(temp / "b"))
            all["b/" + path] = content;
        return all;
    }
    // Both disks and the card as they are now; `restore` brings them back, times and all.
    void keep() const { shell("rm -rf kept; mkdir kept; cp -a card/. kept/card && cp -a a b kept"); }
    void restore() const { shell("rm -rf card/* a b; cp -a kept/card/. card/; cp -a kept/a kept/b ."); }
    void shell(const std::string& command) const {
        ASSERT_EQ(std::system(("cd '" + (temp / "") + "' && " + command).c_str()), 0) << command;
    }
    static void replaceIn(const std::string& path, const std::string& what, const std::string& with) {
        std::string text = test::FileTree::read(path);
        const auto at = text.find(what);
        ASSERT_NE(at, std::string::npos) << what;
        test::FileTree::write(path, text.replace(at, what.size(), with));
    }
    void dieAtBlockNine() {
        options.crashAfterBlock = [](std::int64_t, std::int64_t block) { return block == 9; };
        job = std::make_unique<OffloadJob>(config(), options);
        EXPECT_THROW(job->run({}), SimulatedCrash);
        job.reset();
        options.crashAfterBlock = {};
    }
    // A line in the manifests of both disks, as a run that died leaves it.
    void line(std::int64_t generation, const std::string& path) const {
        ManifestRecord record;
        record.gen = generation;
        record.path = path;
        for (const std::string& card : cards)
            ManifestFile::append(card, std::span(&record, 1));
    }
    std::string reportOf(std::size_t d) const { return ResumePlanner::reportPath(cards[d], 1); }
};

TEST_F(EarlierBackup, EveryDoubtIsRefusedByNameAndChangesNothing) {
    ASSERT_EQ(copy().phase, Phase::done);
    keep();
    const std::vector<std::string> both = cards;
    enum Kind { appending, repairing };
    struct Case {
        const char* what;
        std::function<void()> damage;
        PreflightCode code;
        std::vector<std::string> says;
        Kind kind = appending;
        std::vector<std::string> paths = {};
    };
    using enum PreflightCode;
    const auto none = [] {};
    const std::vector<Case> cases = {
        {"the root", none, other, {"/ is not a card folder of a backup"}, appending, {"/"}},
        {"folders of two names",
         none,
         other,
         {"(2026-03-14/CARD, 2026-03-14/OTHER) — can append only into"},
         appending,
         {cards[0], temp / "b/2026-03-14/OTHER"}},
        {"the same for a repair",
         none,
         other,
         {"can repair only into"},
         repairing,
         {cards[0], temp / "b/2026-03-14/OTHER"}},
        {"a disk that is away", [&] { shell("mv b elsewhere; mkdir b"); }, appendUnavailable, {cards[1]}},
        {"no report", [&] { fs::remove(reportOf(0)); }, appendNoReport, {cards[0], "cannot append."}},
        {"no report, repair", [&] { fs::remove(reportOf(0)); }, appendNoReport, {"cannot repair."}, repairing},
        {"a report that is none",
         [&] { test::FileTree::write(reportOf(1), "{"); },
         other,
         {"Cannot read the report of the earlier backup in " + cards[1] + " (offload_report.json: it is damaged)",
          "by Repair (velmora repair)"}},
        {"a report without a list",
         [&] { test::FileTree::write(reportOf(1), R"({"destinations":[],"files":[]})"); },
         other,
         {"Cannot read the report of the earlier backup in " + cards[1]}},
        {"no history",
         [&] { shell("rm -r */2026-03-14/CARD/ascmhl"); },
         appendNoMhl,
         {"has no ASC MHL (ascmhl/ascmhl_chain.xml) — cannot append."}},
        {"a history on one disk only",
         [&] { shell("rm -r b/2026-03-14/CARD/ascmhl"); },
         appendNoMhl,
         {cards[1] + " has no ASC MHL (ascmhl/ascmhl_chain.xml) — cannot append."}},
        {"a chain on one disk only, beside a dead run",
         [&] {
             shell("rm a/2026-03-14/CARD/ascmhl/*.xml");
             shoot({{"new", 10}});
             line(2, "new");
         },
         appendMhlDamaged,
         {"The ASC MHL history in " + cards[0] + " is damaged"}},
        {"a chain that cannot be read, beside a report that waits",
         [&] {
             shell("cd b/2026-03-14/CARD/ascmhl && rm ascmhl_chain.xml && mkdir ascmhl_chain.xml");
             replaceIn(reportOf(1), "{", "{\"verifyIncomplete\": true,");
         },
         appendMhlDamaged,
         {"The ASC MHL history in " + cards[1] + " is damaged", "Cannot read ascmhl_chain.xml: "}},
        {"a generation that was changed",
         [&] { shell("sed -i s/transfer/transfes/ b/2026-03-14/CARD/ascmhl/0001*"); },
         appendMhlDamaged,
         {"The ASC MHL history in " + cards[1] + " is damaged"}},
        {"a report too many",
         [&] {
             shell(
                 "cp a/2026-03-14/CARD/_REPORT/offload_report.json a/2026-03-14/CARD/_REPORT/offload_report_0003.json");
         },
         other,
         {"the last report is generation 3, the last MHL generation 1"}},
        {"a backup in place of the card", [&] { fs::create_directory(temp / "card/ascmhl"); }, sourceIsOffload, {}},
        {"records behind a link",
         [&] { shell("mv a/2026-03-14/CARD/_REPORT elsewhere && ln -s \"$PWD/elsewhere\" a/2026-03-14/CARD/_REPORT"); },
         destinationUnreadable,
         {"/_REPORT is a link"}},
        {"a disk one generation ahead",
         [&] {
             shoot({{"DCIM/9.mov", 10}});
             EXPECT_THAT(append({cards[0]}).warning().value_or(""),
                         HasSubstr("also in " + cards[1] + ", which was not named and does not hold 1 file"));
         },
         appendDiverged,
         {"has 2 MHL generations, ", "has 1 MHL generation)", cards[1] + " is behind the others"}},
        {"files that do not match, all of them",
         [&] {
             test::FileTree::write(temp / "card/3.txt", "longer than it was", 1'700'000'000);
             const std::string touched = temp / "card/DCIM/1.mov";
             fs::last_write_time(touched, fs::last_write_time(touched) + std::chrono::seconds(5));
             test::FileTree::write(temp / "card/.new.mov.offload-part", "x");
             test::FileTree::write(temp / "card/new.mov", "x");
             test::FileTree::write(cards[1] + "/DCIM/mine.mov", "x");
             test::FileTree::write(cards[0] + "/.DCIM.offload-part", "x");
         },
         appendConflict,
         {"Append stopped — nothing was copied. 5 files do not match the backup:\n  ", "3.txt: different size or date",
          ":05; backup 2.1 MB, ", "new.mov (the temporary copy name .new.mov.offload-part is another",
          "has a file DCIM/mine.mov that no report", "has a file .DCIM.offload-part that no report knows",
          "\nMake a full copy (it goes to "}},
        {"a file that only the dead run still has",
         [&] { line(2, "DCIM/gone.mov"); },
         appendConflict,
         {"DCIM/gone.mov: no longer on the card"}},
        {"another card",
         [&] { shell("rm -r card/*; echo x > card/new"); },
         appendOtherCard,
         {"None of the files of the earlier backup is on the card"}},
        {"a copy that failed",
         [&] { replaceIn(reportOf(1), "\"verified\",\n        \"verified\"", "\"verified\",\n        \"failed\""); },
         appendFailedFile,
         {"3.txt was not copied correctly to ", "cannot append; Repair (velmora repair) copies"}},
        {"a copy of another size",
         [&] { fs::resize_file(cards[1] + "/DCIM/2.mov", 999'999); },
         appendMissingFile,
         {"has another size on ", "DCIM/2.mov (999999 bytes, in the backup 1000000 bytes)"}},
        {"a copy that is gone", [&] { fs::remove(cards[1] + "/DCIM/2.mov"); }, appendMissingFile, {"DCIM/2.mov"}},
        {"a repair that never ended",
         [&] {
             line(2, "3.txt");
             shoot({{"DCIM/9.mov", 10}});
             test::FileTree::write(cards[1] + "/.3.txt.offload-part", "x");
         },
         other,
         {"was not finished — run it again first (velmora repair)"}},
        {"nothing new while files are unfinished", [&] { line(2, "new"); }, other, {"finish it first"}, repairing},
        {"a repair without reading back", none, other, {"cannot run without verification"}, repairing, {"unverified"}},
        {"a card that lost and changed files",
         [&] {
             shell("rm card/3.txt a/2026-03-14/CARD/3.txt b/2026-03-14/CARD/DCIM/1.mov");
             test::FileTree::flipBit(temp / "card/DCIM/1.mov", 77);
         },
         repairConflict,
         {"2 files cannot be repaired:\n  ", "3.txt: no longer on the card",
          "DCIM/1.mov: the card has different content"},
         repairing},
        {"a repair from another card",
         [&] { shell("rm -r card/* a/2026-03-14/CARD/3.txt; echo x > card/3.txt"); },
         other,
         {"The card in the reader is not the one the backup was made from"},
         repairing},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        restore();
        c.damage();
        const auto before = disks();
        const bool unverified = c.paths == std::vector<std::string>{"unverified"};
        const auto& paths = c.paths.empty() || unverified ? both : c.paths;
        const JobStatus status = c.kind == appending ? append(paths) : repair(paths, !unverified);
        EXPECT_EQ(status.phase, Phase::failed);
        EXPECT_EQ(status.errorCode, c.code) << status.error.value_or("");
        for (const std::string& text : c.says)
            EXPECT_THAT(status.error.value_or(""), HasSubstr(text));
        EXPECT_FALSE(status.safeToEject || status.safeToFormat);
        EXPECT_EQ(disks(), before);
    }
    restore();
    const FolderLocks held = FolderLocks::acquire({cards[1]});
    for (const JobStatus& status : {append(both), repair(both)})
        EXPECT_EQ(status.errorCode, PreflightCode::appendBusy);
}

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
        JobConfig into = config();
        into.appendInto = std::vector{cards[0]};
        job = std::make_unique<OffloadJob>(into, options);
        job->compareCard();
        job->run({});
        EXPECT_TRUE(append({cards[0], clone}).safeToFormat) << testing::PrintToString(job->status().warnings);
    }
}

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
    const auto compare = [&] {
        JobConfig into = config();
        into.appendInto = cards;
        job = std::make_unique<OffloadJob>(into, options);
        job->compareCard();
        job->run({});
        return job->status();
    };
    // One that was another from the start, or cannot be read, leaves nothing.
    keep();
    test::FileTree::flipBit(temp / "card/DCIM/2.mov", 9);
    EXPECT_EQ(compare().errorCode, PreflightCode::appendOtherCard);
    EXPECT_THAT(job->status().error.value_or(""), HasSubstr("DCIM/2.mov: the card has different content"));
    EXPECT_EQ(contents(temp / "a"), before);
    restore();
    EXPECT_TRUE(compare().safeToFormat) << testing::PrintToString(job->status().warnings);
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
    EXPECT_FALSE(compare().safeToFormat);
    EXPECT_EQ(compare().phase, Phase::failed) << "it is another card now";
    options.beforeFileCopy = {};
    test::FileTree::flipBit(temp / "card/DCIM/2.mov", 9);
    EXPECT_TRUE(repair(cards).safeToFormat) << job->status().error.value_or("");
    for (const auto& [path, content] : before)
        EXPECT_TRUE(path.ends_with('/') || path.find("/_REPORT/") != std::string::npos ||
                    path.find("/ascmhl/") != std::string::npos || path.ends_with(".xxh64") ||
                    test::FileTree::read(temp / ("a/" + path)) == content)
            << path;
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
    EXPECT_THAT(append(cards).error.value_or(""), HasSubstr("one of the 2 generations that it lacks"));
    for (int run = 0; run < 2; ++run) {
        EXPECT_EQ(append(cards).errorCode, PreflightCode::appendDiverged);
        JobConfig alone = config();
        alone.appendInto = std::vector{cards[1]};
        job = std::make_unique<OffloadJob>(alone, options);
        job->compareCard();
        job->run({});
    }
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

// It takes hours, in which another run may find fault with a folder that was not named.
TEST_F(EarlierBackup, ARepairAsksTheFoldersBesideItWhenItEnds) {
    ASSERT_TRUE(copy().safeToFormat);
    JobConfig ahead = config();
    ahead.appendInto = std::vector{cards[0]};
    job = std::make_unique<OffloadJob>(ahead, options);
    job->compareCard();
    job->run({});
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
