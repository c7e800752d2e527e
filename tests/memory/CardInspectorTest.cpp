#include "memory/CardInspector.h"
#include "memory/BackedUpPrompt.h"
#include "memory/CardFingerprint.h"
#include "memory/CardNaming.h"
#include "memory/HistoryText.h"
#include "platform/IO.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

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
    EXPECT_NE(text(HistoryMatchKind::identical).find("verified, safe to format"), std::string::npos);
    for (const auto kind : {HistoryMatchKind::newFiles, HistoryMatchKind::changed, HistoryMatchKind::notCompared})
        EXPECT_EQ(text(kind).find("safe to format"), std::string::npos);
    match.entry.verified = false;
    EXPECT_NE(text(HistoryMatchKind::identical).find("NOT VERIFIED (safe to eject, do not format)"), std::string::npos);
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
        world_.hasRecords = [this](const std::string&) { return reachable_; };
        volume_ = CardVolume{"id", "1A2B3C4D", 1000, "CARD", "ext4"};
        put("A012_C001.mov");
        put("B003_C001.mov");
    }
    void put(const std::string& name) { std::ofstream(card_.path() + "/" + name) << name; }
    CardInsight inspect(const std::vector<HistoryEntry>& history) {
        return CardInspector::inspect(card_.path(), nullptr, &history, {}, world_);
    }
    // An entry for the card as it is now.
    HistoryEntry backedUp() {
        const CardInsight now = inspect({});
        HistoryEntry entry = entryFor(now.files);
        entry.card = HistoryCard{"id", "1A2B3C4D", 1000, "CARD", "ext4"};
        entry.destinations = {{"/mnt/A", "/mnt/A/2026-03-14/A001"}, {"/mnt/B", "/mnt/B/2026-03-14/A001"}};
        return entry;
    }

    test::TempFolder card_;
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
    // Another capacity is another card.
    entry.card->capacity = 999;
    EXPECT_FALSE(inspect({entry}).match);
}

TEST_F(Inspection, SaysWhatKeepsItFromReadingTheCard) {
    const HistoryEntry entry = backedUp();
    identity_ = "another";
    EXPECT_EQ(inspect({entry}).error, "The card was swapped while it was being read.");
    EXPECT_FALSE(inspect({entry}).match);
    volume_.reset();
    EXPECT_EQ(inspect({entry}).error, "Cannot read the card.");
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

TEST(CardNaming, TakesTypedThenClipsThenTheNextOfTheDayThenTheLabel) {
    for (const auto& [clip, reel] : std::vector<std::pair<const char*, const char*>>{{"A012C0034_230101AB", "A012"},
                                                                                     {"A012_20250314_C003", "A012"},
                                                                                     {"A012_C003", "A012"},
                                                                                     {"a012C003", ""},
                                                                                     {"A012_C03", ""},
                                                                                     {"XA012_C003", ""},
                                                                                     {"A012C00", ""}}) {
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
