#include "memory/CardInspector.h"
#include "base/Text.h"
#include "engine/FolderLocks.h"
#include "memory/AppendPlanner.h"
#include "memory/BackedUpPrompt.h"
#include "memory/CardFingerprint.h"
#include "memory/CardNaming.h"
#include "memory/CardStep.h"
#include "memory/HistoryRecords.h"
#include "memory/HistoryText.h"
#include "mhl/MHL.h"
#include "platform/FileLock.h"
#include "platform/IO.h"
#include "records/ManifestRecord.h"
#include "records/OffloadReport.h"

namespace velmora {
namespace {

constexpr std::int64_t hour = 3600;

std::vector<SourceFile> clips(std::int64_t shift = 0) {
    return {{"A001_C001.mov", 100, {1000000 + shift, 0}}, {"A001_C002.mov", 200, {2000000 + shift, 0}}};
}

HistoryEntry entryFor(const std::vector<SourceFile>& files) {
    HistoryEntry entry;
    const auto digests = CardFingerprint::compute(files);
    entry.fingerprint = digests.fingerprint;
    entry.shape = digests.shape;
    entry.cardName = "A001";
    entry.date = "2026-03-14";
    entry.success = entry.verified = true;
    entry.safeToEject = entry.safeToFormat = true;
    return entry;
}

TEST(CardFingerprint, SeesNamesSizesAndTimesAndOrdersAsUtf16) {
    const auto base = CardFingerprint::compute(clips());
    EXPECT_EQ(base.shape, CardFingerprint::compute(clips(1)).shape);
    EXPECT_NE(base.fingerprint, CardFingerprint::compute(clips(1)).fingerprint);
    auto renamed = clips();
    renamed[0].relPath = "B.mov";
    EXPECT_NE(base.shape, CardFingerprint::compute(renamed).shape);
    // An astral character sorts before U+FF5E in UTF-16 and behind it in UTF-8; the digest was made by `printf` and
    // `sha256sum` in the order of UTF-16.
    const auto astral = CardFingerprint::compute({{"～", 1, {}}, {"😀", 2, {}}});
    EXPECT_EQ(astral.shape, "212112a8dad02e286d9386b0570369e7fa771a8c4b676cdb8179bf65612f31f3");
    EXPECT_EQ(CardFingerprint::compute({}).shape, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

struct MatchCase {
    const char* what;
    std::vector<SourceFile> scan;
    const char* filesystem;
    HistoryMatchKind kind;
    std::size_t newFiles;
    std::int64_t newBytes;
    std::size_t changed;
    std::int64_t removed;
};

TEST(HistoryMatcher, TellsWhatBecameOfACard) {
    auto added = clips();
    added.push_back({"A001_C003.mov", 300, {3, 0}});
    auto rewritten = clips();
    rewritten[1].size = 201;
    const std::vector<SourceFile> reshot = {{"B.mov", 1, {}}, {"C.mov", 2, {}}};
    const std::vector<SourceFile> less = {clips()[0]};
    using Kind = HistoryMatchKind;
    for (const MatchCase& c : std::vector<MatchCase>{
             {"nothing changed", clips(), "ext4", Kind::identical, 0, 0, 0, 0},
             {"a clip more", added, "ext4", Kind::newFiles, 1, 300, 0, 0},
             {"a clip rewritten", rewritten, "ext4", Kind::changed, 0, 0, 1, 0},
             {"formatted and shot again", reshot, "ext4", Kind::changed, 0, 0, 2, 2},
             {"a clip deleted", less, "ext4", Kind::identical, 0, 0, 0, 1},
             {"emptied", {}, "ext4", Kind::identical, 0, 0, 0, 2},
             {"two hours on FAT", clips(2 * hour), "msdos", Kind::identical, 0, 0, 0, 0},
             {"two hours on exFAT", clips(2 * hour), "exfat", Kind::identical, 0, 0, 0, 0},
             {"fourteen hours on FAT", clips(-14 * hour), "FAT32", Kind::identical, 0, 0, 0, 0},
             {"fifteen hours on FAT", clips(15 * hour), "msdos", Kind::changed, 0, 0, 2, 0},
             {"an hour and a half on FAT", clips(hour * 3 / 2), "msdos", Kind::changed, 0, 0, 2, 0},
             {"two hours elsewhere", clips(2 * hour), "hfs", Kind::changed, 0, 0, 2, 0},
         }) {
        const auto match = HistoryMatcher::match(c.scan, CardFingerprint::compute(c.scan).fingerprint,
                                                 entryFor(clips()), clips(), c.filesystem);
        EXPECT_EQ(match.kind, c.kind) << c.what;
        EXPECT_EQ(match.newFiles.size(), c.newFiles) << c.what;
        EXPECT_EQ(match.newBytes, c.newBytes) << c.what;
        EXPECT_EQ(match.changed.size(), c.changed) << c.what;
        EXPECT_EQ(match.removed, c.removed) << c.what;
    }
    EXPECT_EQ(HistoryMatcher::match(added, "f", entryFor(clips()), std::nullopt, "ext4").kind, Kind::notCompared);
}

// A promise to format a card must never stand beside clips that the backup does not hold.
TEST(HistoryText, PromisesFormattingOnlyForACardThatHoldsNothingNew) {
    HistoryMatch match;
    match.entry = entryFor(clips());
    const auto text = [&](HistoryMatchKind kind) {
        match.kind = kind;
        return HistoryText::line(match, false).text;
    };
    match.newFiles = clips();
    EXPECT_TRUE(text(HistoryMatchKind::identical).ends_with("with the same names, sizes and times — do not format"));
    EXPECT_FALSE(HistoryText::holdsWholeCard(match));
    EXPECT_NE(BackedUpPrompt::line(match).find("verified, recognised by names, sizes and times only"),
              std::string::npos);
    match.entry.card.emplace();
    EXPECT_NE(text(HistoryMatchKind::identical).find("verified, safe to format"), std::string::npos);
    for (const auto kind : {HistoryMatchKind::newFiles, HistoryMatchKind::changed, HistoryMatchKind::notCompared})
        EXPECT_EQ(text(kind).find("safe to format"), std::string::npos);
    match.entry.verified = false;
    EXPECT_NE(text(HistoryMatchKind::identical).find("NOT VERIFIED (safe to eject, do not format)"), std::string::npos);
    EXPECT_TRUE(text(HistoryMatchKind::newFiles).ends_with("NOT VERIFIED (do not format)"));
    // Nothing that the run denied, or that nobody recorded.
    for (const std::optional<bool> denied : {std::optional(false), std::optional<bool>()}) {
        match.entry.safeToEject = match.entry.safeToFormat = denied;
        match.entry.verified = false;
        EXPECT_TRUE(text(HistoryMatchKind::identical).ends_with("NOT VERIFIED (do not format)"));
        match.entry.verified = true;
        EXPECT_TRUE(text(HistoryMatchKind::identical).ends_with(" safe to format — do not format"));
    }
    match.entry.success = false;
    match.entry.failedFiles = 2;
    EXPECT_NE(text(HistoryMatchKind::identical).find("with errors (2 files)"), std::string::npos);
    match.entry.unfinished = true;
    EXPECT_NE(text(HistoryMatchKind::identical).find("Unfinished backup on"), std::string::npos);
}

class Inspection : public testing::Test {
protected:
    Inspection() {
        world_.isVolumeRoot = [](const std::string&) { return true; };
        world_.volumeOf = [this](const std::string&) { return volume_; };
        world_.identify = [this](const std::string&) { return identity_; };
        world_.directoryExists = [this](const std::string&) { return reachable_; };
        world_.awaitsVolume = [](const std::string&) { return true; };
        volume_ = CardVolume{"id", "1A2B3C4D", 1000, "CARD", "ext4"};
        put("A012_C001.mov");
        put("B003_C001.mov");
    }
    void put(const std::string& name) { std::ofstream(card_.path() + "/" + name) << name; }
    CardInsight inspect(const std::vector<HistoryEntry>& entries) {
        const Remembered history{entries, verifications_, gaps_};
        return CardInspector::inspect(card_.path(), nullptr, &history, {}, world_);
    }
    // An entry for the card as it is now.
    HistoryEntry backedUp() {
        const CardInsight now = inspect({});
        HistoryEntry entry = entryFor(now.listing.files);
        entry.card = HistoryCard{"id", "1A2B3C4D", 1000, "CARD", "ext4"};
        entry.destinations = {{"/mnt/A", "/mnt/A/2026-03-14/A001"}, {"/mnt/B", "/mnt/B/2026-03-14/A001"}};
        return entry;
    }

    test::TempFolder card_;
    std::vector<HistoryVerification> verifications_;
    std::vector<HistoryGap> gaps_;
    CardInspector::World world_;
    std::optional<CardVolume> volume_;
    std::optional<std::string> identity_ = "id";
    bool reachable_ = true;
};

TEST_F(Inspection, RecognisesTheCardAndDecidesWhatToOffer) {
    HistoryEntry entry = backedUp();
    CardInsight insight = inspect({entry});
    ASSERT_TRUE(insight.match);
    EXPECT_EQ(insight.match->kind, HistoryMatchKind::identical);
    EXPECT_TRUE(BackedUpPrompt::shouldAsk(&insight));
    EXPECT_FALSE(AppendRules::offer(&insight));
    EXPECT_EQ(insight.nameSuggestion, (NameSuggestion{"A012", "from the clip names (A012_C001)"}));
    EXPECT_EQ(insight.nameNote, "The card has more than one reel: A012, B003");
    entry.unfinished = true;
    insight = inspect({entry});
    EXPECT_FALSE(BackedUpPrompt::shouldAsk(&insight));
    EXPECT_TRUE(AppendRules::offer(&insight));
    EXPECT_EQ(AppendRules::checkboxText(*insight.match), "Finish interrupted backup (finishes the verification)");
    EXPECT_EQ(AppendRules::folderText(entry), "Folder: 2026-03-14/A001 on 2 destinations");
    reachable_ = false;
    insight = inspect({entry});
    EXPECT_FALSE(AppendRules::offer(&insight));
    // A medium that is known to be another is another card, and so is one of another capacity.
    entry.card->identity = "other";
    EXPECT_FALSE(inspect({entry}).match);
    entry.card->identity = "created:1";
    EXPECT_TRUE(inspect({entry}).match);
    entry.card->capacity = 999;
    EXPECT_FALSE(inspect({entry}).match);
}

// A backup of the card as it lies on two disks, and what becomes of it after the history was written.
class InspectionWithDisks : public Inspection {
protected:
    InspectionWithDisks() {
        world_.directoryExists = [](const std::string& path) { return IO::isFolder(path); };
        world_.awaitsVolume = [this](const std::string& path) { return path.starts_with(away_); };
        files_ = inspect({}).listing.files;
        build();
    }
    void build() {
        away_ = "nowhere";
        verifications_.clear();
        gaps_.clear();
        entry_ = backedUp();
        entry_.destinations = {{root("A"), folder("A")}, {root("B"), folder("B")}};
        report_ = {};
        report_.verified = true;
        for (const HistoryDestination& destination : entry_.destinations)
            report_.destinations.emplace_back().cardPath = destination.cardPath;
        for (const SourceFile& file : files_) {
            auto& recorded = report_.files.emplace_back();
            recorded.path = file.relPath;
            recorded.size = file.size;
            recorded.modified = file.mtime;
            recorded.xxh64 = "0";
            recorded.destinations = {"verified", "verified"};
            recorded.errors.resize(2);
        }
        for (const char* disk : {"A", "B"}) {
            std::filesystem::remove_all(root(disk));
            IO::mkdirs(folder(disk) + "/_REPORT");
            for (const SourceFile& file : files_) {
                std::filesystem::copy_file(card_.path() + "/" + file.relPath, folder(disk) + "/" + file.relPath);
                touch(disk, file.relPath, file.mtime);
            }
        }
        stand();
        for (const char* disk : {"A", "B"})
            MHL::write(report_, folder(disk), {5, 0}, "cart");
    }
    std::string root(const std::string& disk) const { return disks_.path() + "/" + disk; }
    std::string folder(const std::string& disk) const { return root(disk) + "/2026-03-14/A001"; }
    void touch(const std::string& disk, const std::string& name, Timestamp time) {
        const timespec times[2] = {{time.seconds, time.nanoseconds}, {time.seconds, time.nanoseconds}};
        ASSERT_EQ(::utimensat(AT_FDCWD, (folder(disk) + "/" + name).c_str(), times, 0), 0);
    }
    void stand() {
        for (const char* disk : {"A", "B"})
            IO::writeFileDurably(folder(disk) + "/_REPORT/offload_report.json", report_.jsonData());
    }
    // The report says so of the first file on disk B.
    void state(const std::string& status) {
        report_.files[0].destinations[1] = status;
        stand();
    }

    test::TempFolder disks_;
    std::string away_;
    HistoryEntry entry_;
    OffloadReport report_;
    std::vector<SourceFile> files_;
};

// What the disks hold now counts, whatever the history remembers; and the step that is named is one that can work.
TEST_F(InspectionWithDisks, HoldsTheHistoryAgainstTheFoldersThatItNames) {
    using Kind = CardStep::Kind;
    struct Case {
        std::string what;
        std::function<void()> strike;
        std::string says; // of the one sentence and its notes, with "$B" for the folder on disk B
        Kind step;
        bool safe;
    };
    const std::string first = files_[0].relPath;
    const auto openRepair = [&] {
        ManifestRecord run;
        run.kind = ManifestRecord::runKind;
        run.gen = 2;
        run.mode = "repair";
        ManifestRecord line;
        line.gen = 2;
        line.path = first;
        IO::writeFileDurably(folder("B") + "/_REPORT/offload-manifest.jsonl", run.line() + "\n" + line.line() + "\n");
    };
    const std::vector<Case> cases{
        {"untouched", [] {}, "verified, safe to format", Kind::copyWhole, true},
        {"a run that promised nothing", [&] { entry_.safeToFormat.reset(); }, "did not call the card safe to format",
         Kind::append, false},
        {"a disk away", [&] { away_ = root("B"); }, "Not connected: $B — its state is that of", Kind::copyWhole, true},
        {"a later verification failed",
         [&] { entry_.verifications = {{folder("B"), {}, {}, Timestamp{5, 0}, "mismatch 1"}}; }, "found mismatch 1",
         Kind::repair, false},
        {"the same, kept beside the entries",
         [&] { verifications_ = {{folder("B"), {}, {}, Timestamp{5, 0}, "mismatch 1"}}; }, "found mismatch 1",
         Kind::repair, false},
        {"a history that was set aside", [&] { gaps_ = {{"/h.corrupt", {1'000'000, 0}, ""}}; },
         "the card history was damaged and set aside as /h.corrupt, and $A was not read since", Kind::repair, false},
        {"the same, with the copies read since",
         [&] {
             gaps_ = {{"/h.corrupt", {1'000'000, 0}, ""}};
             for (const char* disk : {"A", "B"})
                 verifications_.push_back({folder(disk), {}, Timestamp{1'000'001, 0}, {}, ""});
         },
         "verified, safe to format", Kind::copyWhole, true},
        {"a copy touched", [&] { touch("B", first, {7, 0}); }, first + " in $B is missing or changed", Kind::repair,
         false},
        {"a copy gone", [&] { IO::unlink(folder("B") + "/" + first); }, first + " in $B is missing", Kind::repair,
         false},
        {"a copy that was never verified", [&] { state("written"); }, "NOT VERIFIED", Kind::append, false},
        {"a file that a cancelled run left out", [&] { state("pending"); }, first + " was not copied to $B",
         Kind::append, false},
        {"a copy that failed", [&] { state("failed"); }, first + " was not copied correctly to $B", Kind::repair,
         false},
        {"failed, and gone from the card",
         [&] {
             report_.files[0].path = "LOST.mov";
             state("failed");
         },
         "LOST.mov was not copied to $B and is no longer on the card", Kind::copyAgain, false},
        {"a file that no report names",
         [&] {
             report_.files.pop_back();
             stand();
         },
         "does not hold", Kind::append, false},
        {"a repair that died before its report",
         [&] {
             entry_.unfinished = true;
             openRepair();
         },
         "a repair of $B was not finished", Kind::repair, false},
        {"the same, begun by another computer", [&] { openRepair(); }, "a repair of $B was not finished", Kind::repair,
         false},
        {"a chain that cannot be read",
         [&] {
             std::filesystem::remove_all(folder("B") + "/ascmhl");
             IO::mkdirs(folder("B") + "/ascmhl/ascmhl_chain.xml");
         },
         "$B cannot be read (The ASC MHL history in $B is damaged", Kind::copyAgain, false},
        {"a broken report", [&] { IO::writeFileDurably(folder("B") + "/_REPORT/offload_report.json", "{"); },
         "$B cannot be read (", Kind::copyAgain, false},
        {"a lost history", [&] { std::filesystem::remove_all(folder("B") + "/ascmhl"); },
         "$B cannot be read (its ASC MHL history is lost)", Kind::copyAgain, false},
        {"a folder gone that was never verified",
         [&] {
             entry_.verified = false;
             std::filesystem::remove_all(folder("B"));
         },
         "NOT VERIFIED, but $B is not there any more", Kind::copyAgain, false},
        {"a folder gone", [&] { std::filesystem::remove_all(folder("B")); }, "$B is not there any more",
         Kind::copyAgain, false},
    };
    // The second time the entry is of a run into folder A alone, whose report names B as well.
    for (std::size_t i = 0; i < 2 * cases.size(); ++i) {
        const Case& c = cases[i % cases.size()];
        build();
        if (i >= cases.size())
            entry_.destinations.pop_back();
        c.strike();
        const CardInsight insight = inspect({entry_});
        ASSERT_TRUE(insight.match) << c.what;
        const auto line = HistoryText::line(*insight.match, false).text;
        const std::string all = line + "\n" + join(HistoryText::notes(*insight.match), "\n");
        EXPECT_NE(all.find(replaceAll(replaceAll(c.says, "$A", folder("A")), "$B", folder("B"))), std::string::npos)
            << c.what << ": " << all;
        const CardStep step = CardStep::of(insight);
        EXPECT_EQ(step.kind, c.step) << c.what;
        EXPECT_TRUE(step.kind != Kind::repair || step.into.size() == 2) << c.what << ": disks in step stay so";
        EXPECT_EQ(line.ends_with("verified, safe to format"), c.safe) << line;
        EXPECT_EQ(BackedUpPrompt::line(*insight.match).ends_with(", verified"),
                  c.safe || c.says.starts_with("did not call"))
            << BackedUpPrompt::line(*insight.match);
        EXPECT_EQ(HistoryText::holdsWholeCard(*insight.match),
                  c.safe || c.says == "NOT VERIFIED" || c.says.starts_with("did not call"))
            << c.what;
        // With errors on record too, nothing is called identical.
        entry_.success = false;
        EXPECT_FALSE(HistoryText::holdsWholeCard(*inspect({entry_}).match)) << c.what;
    }
    build();
    entry_.destinations.pop_back();
    // A disk that is behind is brought on by itself, whatever it lacks.
    report_.generation = 2;
    MHL::write(report_, folder("A"), {5, 0}, "cart");
    const CardStep alone = CardStep::of(inspect({entry_}));
    EXPECT_TRUE(alone.kind == Kind::append && alone.compare && alone.into == std::vector{folder("B")});
    std::filesystem::remove_all(folder("B"));
    entry_.destinations.push_back({root("B"), folder("B")});
    // A full copy goes to both disks: the one that is away is to be connected.
    away_ = root("A");
    EXPECT_EQ(CardStep::of(inspect({entry_})).kind, Kind::copyAgain);
    EXPECT_EQ(CardStep::of(inspect({entry_})).away, std::vector{folder("A")});
    away_ = "nowhere";
    // An interrupted run is finished where all its folders are, also those that hold nothing yet; else nothing finishes
    // it.
    entry_.unfinished = true;
    EXPECT_EQ(CardStep::of(inspect({entry_})).kind, Kind::copyAgain);
    IO::mkdirs(folder("B"));
    EXPECT_EQ(CardStep::of(inspect({entry_})).kind, Kind::finish);
    EXPECT_TRUE(inspect({entry_}).appendReachable);
    // A copy that broke off at once holds no folder: who stands there now is another.
    entry_.files = 2;
    entry_ = HistoryRecords::failed(entry_, {});
    EXPECT_EQ(CardStep::of(inspect({entry_})).kind, Kind::copyAgain);
}

TEST_F(Inspection, WaitsForNoBusyHistoryWhenItIsCancelled) {
    const test::TempFolder folder;
    setenv("VELMORA_SETTINGS_DIR", folder.path().c_str(), 1);
    const auto held = FileLock::lock(Locks::history(folder.path()), 5);
    HistoryStore store(folder.path(), 20);
    const auto begin = std::chrono::steady_clock::now();
    const auto passed = [&](int seconds) {
        return std::chrono::steady_clock::now() - begin > std::chrono::seconds(seconds);
    };
    EXPECT_THROW(CardInspector::inspect(card_.path(), &store, nullptr, [&] { return passed(1); }, world_), Cancelled);
    EXPECT_FALSE(passed(10));
    unsetenv("VELMORA_SETTINGS_DIR");
}

TEST_F(Inspection, SaysWhatKeepsItFromReadingTheCard) {
    const HistoryEntry entry = backedUp();
    identity_ = "another";
    EXPECT_EQ(inspect({entry}).error, "The card was swapped while it was being read.");
    EXPECT_FALSE(inspect({entry}).match);
    volume_.reset();
    EXPECT_EQ(inspect({entry}).error, "Cannot read the card.");
    const std::string file = card_.path() + "/A012_C001.mov";
    EXPECT_EQ(CardInspector::inspect(file, nullptr, nullptr, {}, world_).error, file + " is not a folder.");
    EXPECT_THROW(CardInspector::inspect(card_.path(), nullptr, nullptr, [] { return true; }, world_), Cancelled);
    world_.isVolumeRoot = [](const std::string&) { return false; };
    HistoryEntry folder = entry;
    EXPECT_FALSE(inspect({folder}).match); // a folder never matches a card
    folder.card.reset();
    EXPECT_TRUE(inspect({folder}).match);
}

TEST(BackedUpPrompt, AsksInItsOwnWords) {
    HistoryMatch match;
    match.entry = entryFor(clips());
    match.entry.destinations = {{"/media/user/DISK_A", ""}, {"/srv/raid", ""}};
    match.entry.card.emplace();
    match.kind = HistoryMatchKind::newFiles;
    match.newFiles = clips();
    match.newBytes = 300;
    const auto one = BackedUpPrompt::build({{match, "a001"}}, "2026-03-14");
    EXPECT_EQ(one.title, "Card already backed up");
    EXPECT_EQ(one.question, "Copy it again in full? A new folder will be created (e.g. a001_2).");
    EXPECT_EQ(one.lines.front(), "A001 — " + HistoryText::when({}) + ", DISK_A, /srv/raid, verified, 2 new files");
    const auto two = BackedUpPrompt::build({{match, "A001"}, {match, "A002"}}, "2026-03-15");
    EXPECT_EQ(two.question,
              "Copy them again in full? New folders will be created (e.g. 2026-03-15/A001, 2026-03-15/A002).");
    EXPECT_EQ(AppendRules::checkboxText(match), "Append new clips only to the earlier backup (2 files · 300 B)");
}

TEST(HistoryText, NamesDisksAsPeopleDo) {
    for (const auto& [root, name] : std::map<std::string, std::string>{
             {"/", "the system disk"}, {"/media/ann/T7/", "T7"}, {"/mnt", "mnt"}, {"/srv/raid", "/srv/raid"}})
        EXPECT_EQ(HistoryText::diskName(root), name) << root;
    // Of a disk that is away, and of a root on the system's own disk.
    EXPECT_EQ(AppendPlanner::disk("/Volumes/gone/2026-03-14/A001"), "gone");
    EXPECT_EQ(AppendPlanner::disk("/2026-03-14/A001"), "the system disk");
    EXPECT_EQ(AppendPlanner::disk("/srv/raid/2026-03-14/A001"), "/srv/raid");
}

TEST(CardNaming, TakesTypedThenClipsThenTheNextOfTheDayThenTheLabel) {
    using P = std::pair<const char*, const char*>;
    for (const auto& [clip, reel] :
         {P{"A012C0034_230101AB", "A012"}, P{"A012_20250314_C003", "A012"}, P{"A012_C003", "A012"}, P{"a012C003", ""},
          P{"A012_C03", ""}, P{"XA012_C003", ""}, P{"A012C00", ""}}) {
        const auto match = ReelNames::match(clip);
        EXPECT_EQ(match ? match->reel : "", reel) << clip;
    }
    HistoryEntry a = entryFor({});
    a.date = "2026-03-14";
    a.cardName = "A012";
    a.finished = {2, 0};
    HistoryEntry b = a;
    b.cardName = "B007";
    b.finished = {1, 0};
    CardInsight named;
    named.nameSuggestion = NameSuggestion{"C001", "from the clip names (C001_C001)"};
    const auto names = CardNaming::resolve(true,
                                           {{"1", std::nullopt, nullptr, "LABEL"},
                                            {"2", "  ", nullptr, "LABEL"},
                                            {"3", "typed", &named, "LABEL"},
                                            {"4", std::nullopt, &named, "LABEL"}},
                                           {a, b}, "2026-03-14", "2026-03-14", std::nullopt);
    EXPECT_EQ(names.at("1"), (CardNaming::Name{"A013", "next after A012 today"}));
    EXPECT_EQ(names.at("2").name, "A014");
    EXPECT_EQ(names.at("3"), (CardNaming::Name{"typed", std::nullopt}));
    EXPECT_EQ(names.at("4").name, "C001");
    EXPECT_EQ(CardNaming::placeholder(true, nullptr, {a}, "2026-03-15", "2026-03-15", "LABEL", {}, std::nullopt),
              "LABEL");
    a.cardName = "A999";
    EXPECT_FALSE(ReelSuggestion::next({a}, "2026-03-14", std::nullopt, "", {}));
}

} // namespace
} // namespace velmora
