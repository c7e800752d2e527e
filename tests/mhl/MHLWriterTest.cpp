#include "base/Errors.h"
#include "mhl/MHL.h"
#include "mhl/MHLReader.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::FileTree::read;
using test::FileTree::write;

constexpr Timestamp now{1'794'814'500, 0}; // 2026-11-16T07:35:00Z

OffloadReport::FileEntry file(const std::string& path, std::vector<std::string> states,
                              std::optional<bool> rewritten = {}) {
    OffloadReport::FileEntry entry;
    entry.path = path;
    entry.size = 12;
    entry.modified = {1'700'000'000, 999'000'000};
    entry.xxh64 = "00112233445566aa";
    entry.destinations = std::move(states);
    if (rewritten)
        entry.rewritten = std::vector<bool>(entry.destinations.size(), *rewritten);
    return entry;
}

OffloadReport report(const std::string& cardPath, std::optional<std::int64_t> generation = 1) {
    OffloadReport report;
    report.version = "0.7.0";
    report.cardName = "A001";
    report.source = "/media/me/A&B <CARD>";
    report.generation = generation;
    report.destinations.emplace_back().cardPath = cardPath;
    report.files = {file("DCIM/a.mov", {"verified"})};
    return report;
}

// Runs `write` and returns what it refuses with; empty when it does not.
std::string refusal(const OffloadReport& report, const std::string& cardPath, Timestamp when = now) {
    return test::refusal<OffloadError>([&] { MHL::write(report, cardPath, when, "host"); });
}

TEST(MHL, WritesAGenerationAndItsChainToTheLetter) {
    const test::TempFolder disk;
    const std::string card = disk / "A001";
    std::filesystem::create_directory(card);
    OffloadReport both = report(card + "/");
    both.destinations[0].verifyMethod = "read-back";
    both.files[0].path = "DCIM/<ü & \"x\">.mov";
    both.files[0].xxh128 = "ffeeddccbbaa99887766554433221100";
    both.files.push_back(file("b.xml", {"failed"}));
    both.files[1].md5 = "0123456789abcdef0123456789abcdef";
    both.files.push_back(file("c", {"written"}));
    MHL::write(both, card, now, "cart<1>");
    const std::string name = "0001_A001_2026-11-16_073500Z.mhl";
    const std::string text = read(card + "/ascmhl/" + name);
    EXPECT_EQ(text, R"(<?xml version="1.0" encoding="UTF-8"?>
<hashlist version="2.0" xmlns="urn:ASC:MHL:v2.0">
  <creatorinfo>
    <creationdate>2026-11-16T07:35:00Z</creationdate>
    <hostname>cart&lt;1&gt;</hostname>
    <tool version="0.7.0">Velmora</tool>
    <comment>Velmora offload of A001 from /media/me/A&amp;B &lt;CARD&gt; · verification: read-back</comment>
  </creatorinfo>
  <processinfo>
    <process>transfer</process>
    <ignore>
      <pattern>.DS_Store</pattern>
      <pattern>ascmhl</pattern>
      <pattern>ascmhl/</pattern>
      <pattern>_REPORT</pattern>
      <pattern>_PROXY</pattern>
    </ignore>
  </processinfo>
  <hashes>
    <hash>
      <path size="12" lastmodificationdate="2023-11-14T22:13:20Z">DCIM/&lt;ü &amp; &quot;x&quot;&gt;.mov</path>
      <xxh64 action="original" hashdate="2026-11-16T07:35:00Z">00112233445566aa</xxh64>
      <xxh128 action="original" hashdate="2026-11-16T07:35:00Z">ffeeddccbbaa99887766554433221100</xxh128>
    </hash>
    <hash>
      <path size="12" lastmodificationdate="2023-11-14T22:13:20Z">b.xml</path>
      <xxh64 action="failed" hashdate="2026-11-16T07:35:00Z">00112233445566aa</xxh64>
      <md5 action="failed" hashdate="2026-11-16T07:35:00Z">0123456789abcdef0123456789abcdef</md5>
    </hash>
  </hashes>
</hashlist>
)");
    EXPECT_EQ(read(card + "/ascmhl/ascmhl_chain.xml"), R"(<?xml version="1.0" encoding="UTF-8"?>
<ascmhldirectory xmlns="urn:ASC:MHL:DIRECTORY:v2.0">
  <hashlist sequencenr="1">
    <path>)" + name + R"(</path>
    <c4>)" + MHL::c4(text) + R"(</c4>
  </hashlist>
</ascmhldirectory>
)");
    const MHLHistory history = MHLReader::read(card);
    EXPECT_TRUE(history.chainProblems.empty());
    EXPECT_TRUE(history.ignoresReportFolder());
    EXPECT_EQ(history.files.at("DCIM/<ü & \"x\">.mov")->hash("xxh128")->value, *both.files[0].xxh128);
    EXPECT_TRUE(history.files.at("b.xml")->failed());
    EXPECT_EQ(history.files.at("b.xml")->modified, (Timestamp{1'700'000'000, 0}));
}

TEST(MHL, ListsAFileByItsStateAndByWhetherItWasRewritten) {
    const struct {
        std::optional<bool> rewritten;
        const char *pending, *written, *verified, *failed;
    } rows[] = {{std::nullopt, "", "", "original", "failed"},
                {true, "", "original", "original", "failed"},
                {false, "", "", "verified", "failed"}};
    for (const auto& row : rows) {
        const std::pair<const char*, const char*> columns[] = {
            {"pending", row.pending}, {"written", row.written}, {"verified", row.verified}, {"failed", row.failed}};
        for (const auto& [state, action] : columns) {
            OffloadReport one = report("/c");
            one.files = {file("a", {"verified", state}, row.rewritten)};
            const auto entries = MHL::entries(one, 1);
            EXPECT_EQ(entries.empty() ? "" : entries[0].action, action)
                << state << " rewritten " << (row.rewritten ? *row.rewritten : -1);
        }
    }
}

TEST(MHL, SaysInTheCommentWhatTheRunWas) {
    const struct {
        const char* kind;
        std::vector<OffloadReport::FileEntry> files;
        std::string comment;
    } cases[] = {
        {"append", {file("a", {"verified"})}, "Velmora append: 1 new file from"},
        {"append", {file("a", {"verified"}), file("b", {"verified"})}, "Velmora append: 2 new files from"},
        {"repair", {file("a", {"verified"}, true)}, "Velmora repair: 1 file again from"},
        {"repair",
         {file("a", {"verified"}, true), file("b", {"verified"}, true), file("c", {"verified"}, false)},
         "Velmora repair: 2 files again from /media/me/A&amp;B &lt;CARD&gt; 1 file only read back</comment>"},
        {"copy", {}, "Velmora offload of A001 from"},
    };
    for (const auto& c : cases) {
        const test::TempFolder card;
        OffloadReport one = report(card.path());
        one.kind = c.kind;
        one.files = c.files;
        MHL::write(one, card.path(), now, "host");
        const std::string text = read(card / "ascmhl/" + MHL::generationName(1, card.path(), now));
        EXPECT_NE(text.find("<comment>" + c.comment), std::string::npos) << text;
    }
}

TEST(MHL, AddsGenerationsAndNeverTouchesTheOnesBefore) {
    const test::TempFolder card;
    MHL::write(report(card.path()), card.path(), now, "host");
    const std::string first = card / "ascmhl/" + MHL::generationName(1, card.path(), now);
    const std::string before = read(first);
    OffloadReport second = report(card.path(), 2);
    second.files = {file("new", {"verified"})};
    MHL::write(second, card.path(), {now.seconds + 60, 0}, "host");
    EXPECT_EQ(read(first), before);
    const MHLHistory history = MHLReader::read(card.path());
    EXPECT_TRUE(history.chainProblems.empty());
    EXPECT_EQ(history.lastChained(), 2);
    EXPECT_EQ(history.files.size(), 2U);

    EXPECT_EQ(
        refusal(second, card.path()),
        "The ASC MHL in " + card.path() +
            " changed during the append (last generation 2, the append writes 2) — the generation was not written.");
    EXPECT_EQ(refusal(report(card.path(), std::nullopt), card.path()), ""); // no number said: it is the next one
    EXPECT_EQ(MHLReader::read(card.path()).lastChained(), 3);
}

TEST(MHL, NeverStartsAFirstGenerationOverAnEarlierHistory) {
    const std::string chain = R"(<ascmhldirectory xmlns="urn:ASC:MHL:DIRECTORY:v2.0"></ascmhldirectory>)";
    const std::vector<std::pair<std::string, std::string>> before[] = {
        {{"ascmhl_chain.xml", chain}},
        {{"ascmhl_chain.xml", "torn"}},
        {{"0002_A_2020-01-01_000000Z.mhl", "<hashlist xmlns=\"urn:ASC:MHL:v2.0\"/>"}},
    };
    for (const auto& files : before) {
        const test::TempFolder card;
        for (const auto& [name, text] : files)
            write(card / "ascmhl/" + name, text);
        const auto tree = test::FileTree::contents(card.path());
        EXPECT_EQ(refusal(report(card.path()), card.path()),
                  "The ASC MHL in " + card.path() + " already has a chain — generation 1 was not written.");
        EXPECT_EQ(test::FileTree::contents(card.path()), tree);
    }
    const test::TempFolder card;
    OffloadReport bad = report(card.path());
    bad.files[0].path = "a\x01";
    EXPECT_EQ(refusal(bad, card.path()),
              "The ASC MHL cannot hold the name \"a\\x01\" — the generation was not written.");
    EXPECT_NE(refusal(report("/elsewhere"), card.path()), "");
    EXPECT_TRUE(fs::is_empty(card.path()));
}

TEST(MHL, ARetryOutlivesTheFileOfAWriteThatDied) {
    const test::TempFolder card;
    const std::string ascmhl = card / "ascmhl/";
    MHL::write(report(card.path()), card.path(), now, "host");
    const std::string name = MHL::generationName(1, card.path(), now);
    const std::string died = read(ascmhl + name);
    fs::remove(ascmhl + "ascmhl_chain.xml");                   // as if the power had gone between the two files
    MHL::write(report(card.path()), card.path(), now, "host"); // and again, in a retry of the same second
    fs::remove(ascmhl + "ascmhl_chain.xml");
    const MHLHistory left = MHLReader::read(card.path());
    EXPECT_FALSE(left.chainProblems.empty());
    EXPECT_TRUE(left.problemsBeside(1).empty()); // nothing that finishing generation 1 would not settle
    EXPECT_FALSE(left.problemsBeside(2).empty());
    EXPECT_FALSE(MHL::hasGeneration(report(card.path()), card.path()));

    EXPECT_EQ(refusal(report(card.path()), card.path(), {now.seconds + 5, 0}), "");
    EXPECT_TRUE(MHL::hasGeneration(report(card.path()), card.path()));
    EXPECT_TRUE(MHLReader::read(card.path()).chainProblems.empty());
    EXPECT_EQ(read(ascmhl + name + ".unchained"), died); // nothing was destroyed
    EXPECT_EQ(read(ascmhl + name + ".unchained.2"), died);

    // Of a later generation: own and broken leftovers make way, another tool's file stays and stays told.
    const std::string chainBefore = read(ascmhl + "ascmhl_chain.xml");
    MHL::write(report(card.path(), 2), card.path(), {now.seconds + 9, 0}, "host");
    write(ascmhl + "ascmhl_chain.xml", chainBefore);
    write(ascmhl + "0002_A001_2026-01-01_000000Z.mhl", "");
    write(ascmhl + "0002_other.mhl",
          R"(<hashlist xmlns="urn:ASC:MHL:v2.0"><creatorinfo><tool>Other</tool></creatorinfo></hashlist>)");
    EXPECT_EQ(MHLReader::read(card.path()).problemsBeside(2), std::vector<std::string>{});
    EXPECT_EQ(refusal(report(card.path(), 2), card.path(), {now.seconds + 20, 0}), "");
    EXPECT_EQ(MHLReader::read(card.path()).chainProblems,
              std::vector<std::string>{"ASC MHL file not in the chain: 0002_other.mhl"});
}

TEST(MHL, KnowsWhetherItsGenerationIsThere) {
    const test::TempFolder card;
    const OffloadReport one = report(card.path());
    EXPECT_FALSE(MHL::hasGeneration(one, card.path()));
    MHL::write(one, card.path(), now, "host");
    const auto tree = test::FileTree::contents(card.path());
    EXPECT_TRUE(MHL::hasGeneration(one, card.path()));
    EXPECT_FALSE(MHL::hasGeneration(report(card.path(), 2), card.path()));
    const auto error = [&](const OffloadReport& other) {
        bool there = false;
        const auto said = test::refusal<OffloadError>([&] { there = MHL::hasGeneration(other, card.path()); });
        return there ? "true" : said;
    };
    const std::string different = "The ASC MHL in " + card.path() +
                                  " already has a different generation 1 — the generation was not written again.";
    OffloadReport other = one;
    other.files[0].xxh64 = "00112233445566AA"; // the same digest
    EXPECT_EQ(error(other), "true");
    other.files[0].xxh64 = "00112233445566ab";
    EXPECT_EQ(error(other), different);
    other = one;
    other.files.push_back(file("more", {"verified"}));
    EXPECT_EQ(error(other), different);
    EXPECT_EQ(test::FileTree::contents(card.path()), tree);

    const std::string path = card / "ascmhl/" + MHL::generationName(1, card.path(), now);
    const std::string gone = "The ASC MHL in " + card.path() +
                             " has generation 1, but its file is missing or was changed — the generation was not "
                             "written again.";
    write(path, read(path) + "\n");
    EXPECT_EQ(error(one), gone);
    fs::remove(path);
    EXPECT_EQ(error(one), gone);
}

} // namespace
} // namespace velmora
