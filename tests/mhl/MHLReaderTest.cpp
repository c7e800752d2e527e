#include "mhl/MHLReader.h"
#include "base/Errors.h"
#include "mhl/IgnorePatterns.h"
#include "mhl/MHL.h"
#include "mhl/NestedHistories.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::FileTree::write;
using Problems = std::vector<std::string>;

std::string hashElement(const std::string& path, const std::string& action = "original",
                        const std::string& attributes = "", const std::string& value = "00112233445566aa") {
    return "<hash><path size=\"5\"" + attributes + ">" + path + "</path><xxh64 action=\"" + action + "\">" + value +
           "</xxh64></hash>";
}

std::string generation(const std::string& hashes, const std::string& patterns = "") {
    return "<?xml version=\"1.0\"?><hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\"><creatorinfo><tool>T</tool>"
           "</creatorinfo><processinfo><ignore>" +
           patterns + "</ignore></processinfo><hashes>" + hashes + "</hashes></hashlist>";
}

// A history whose generations hold the given hash elements, chained in the given order of numbers.
class Card {
public:
    explicit Card(const std::vector<std::string>& generations) {
        for (std::size_t i = 0; i < generations.size(); ++i)
            add(static_cast<int>(i) + 1, generations[i]);
        writeChain();
    }
    void add(int seq, const std::string& hashes) {
        const std::string text = generation(hashes);
        write(file(seq), text);
        entries.push_back({seq, fs::path(file(seq)).filename(), MHL::c4(text)});
    }
    void writeChain() const {
        std::string text = "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\">";
        for (const MHLChainEntry& entry : entries)
            text += "<hashlist sequencenr=\"" + std::to_string(entry.seq) + "\"><path>" + entry.path + "</path><c4>" +
                    entry.c4 + "</c4></hashlist>";
        write(folder / "ascmhl/ascmhl_chain.xml", text + "</ascmhldirectory>");
    }
    std::string file(int seq) const { return folder / "ascmhl/000" + std::to_string(seq) + "_A.mhl"; }
    MHLHistory read() const { return MHLReader::read(folder.path()); }
    test::TempFolder folder;
    std::vector<MHLChainEntry> entries;
};

TEST(MHLReader, KeepsTheNewestRecordAndTheLastGoodOne) {
    const Card card({hashElement("a") + hashElement("b"),
                     hashElement("b", "failed", "", "ff") + hashElement("c", "failed"), hashElement("d")});
    const MHLHistory history = card.read();
    EXPECT_EQ(history.chainProblems, Problems{});
    EXPECT_EQ(history.generations.size(), 3U);
    EXPECT_EQ(history.files.size(), 4U);
    EXPECT_TRUE(history.files.at("b")->failed());
    EXPECT_EQ(history.lastGood.at("b")->hashes[0].value, "00112233445566aa");
    EXPECT_EQ(history.lastGood.at("b")->generation, 1);
    EXPECT_FALSE(history.lastGood.contains("c"));
}

TEST(MHLReader, GivesNothingForAFolderWithoutAHistory) {
    const test::TempFolder card;
    EXPECT_FALSE(MHLReader::read(card.path()).exists);
    fs::create_directory(card / "ascmhl");
    EXPECT_FALSE(MHLReader::read(card.path()).exists);
    EXPECT_TRUE(MHLReader::read(card.path()).chainProblems.empty());
}

// Changed and missing files, and a chain that is gone, are played with the verification.
TEST(MHLReader, TellsWhatNoChainVouchesFor) {
    Card card({hashElement("a"), hashElement("b")});
    write(card.file(3), generation(hashElement("forged")));
    write(card.folder / "ascmhl/._0001_A.mhl", "\0\5\26\7");
    MHLHistory history = card.read();
    EXPECT_EQ(history.chainProblems, Problems{"ASC MHL file not in the chain: 0003_A.mhl"});
    EXPECT_FALSE(history.files.contains("forged"));
    fs::remove(card.file(3));
    write(card.folder / "ascmhl/ascmhl_chain.xml", "<ascmhldirectory");
    history = card.read();
    EXPECT_EQ(history.chainProblems.size(), 3U); // unreadable, and nothing vouches for either file
    EXPECT_TRUE(history.chainProblems[0].starts_with("Cannot read ascmhl_chain.xml: line 1: "));
    EXPECT_EQ(history.files.size(), 2U);
    EXPECT_EQ(history.lastChained(), 0);
    card.writeChain();
    write(card.file(2), "<hashlist xmlns=\"urn:ASC:MHL:v2.0\">");
    EXPECT_THAT(test::refusal<MHLFormatError>([&] { card.read(); }),
                testing::StartsWith("Cannot read ASC MHL generation 0002_A.mhl: line 1: "));
}

TEST(MHLReader, ReadsByAscendingNumberAndTellsGapsAndRepeats) {
    Card card({hashElement("a", "original", "", "01"), hashElement("a", "original", "", "02")});
    std::swap(card.entries[0], card.entries[1]);
    card.writeChain();
    EXPECT_EQ(card.read().chainProblems, Problems{});
    EXPECT_EQ(card.read().files.at("a")->hashes[0].value, "02");

    card.entries[0].seq = 4; // was 2
    card.writeChain();
    EXPECT_EQ(card.read().chainProblems, Problems{"The ASC MHL chain does not list generation 0002."});

    card.entries[0] = {3, card.entries[1].path, card.entries[1].c4}; // generation 3 hidden behind another's file
    card.entries.push_back({2, "0002_A.mhl", "c4"});
    card.writeChain();
    EXPECT_THAT(card.read().chainProblems,
                testing::Contains("The ASC MHL chain names the file of generation 0001 again for generation 0003: "
                                  "0001_A.mhl"));
    card.entries.pop_back();

    card.entries[0] = {1, "0002_A.mhl", MHL::c4(generation(hashElement("a", "original", "", "02")))};
    card.writeChain();
    EXPECT_EQ(card.read().chainProblems, Problems{"The ASC MHL chain lists generation 0001 more than once."});
    EXPECT_EQ(card.read().generations.size(), 2U);
}

TEST(MHLReader, LetsARenamedFileTakeItsPastAlong) {
    const std::string from = " previousPath=\"old\"";
    const struct {
        const char* what;
        std::string second;
        bool failed;
        std::string good;
    } cases[] = {
        {"hashed again", hashElement("new", "verified", from, "02"), false, "02"},
        {"failed", hashElement("new", "failed", from, "02"), true, "01"},
        {"without a digest", "<hash><path previousPath=\"old\">new</path></hash>", false, "01"},
        {"as an element", "<hash><path>new</path><previousPath>old</previousPath></hash>", false, "01"},
    };
    for (const auto& c : cases) {
        const Card card({hashElement("old", "original", "", "01"), c.second});
        const MHLHistory history = card.read();
        ASSERT_EQ(history.files.size(), 1U) << c.what;
        EXPECT_EQ(history.files.at("new")->failed(), c.failed) << c.what;
        ASSERT_EQ(history.lastGood.size(), 1U) << c.what;
        EXPECT_EQ(history.lastGood.at("new")->path, "new") << c.what;
        EXPECT_EQ(history.lastGood.at("new")->hashes[0].value, c.good) << c.what;
    }
    const Card swapped(
        {hashElement("a", "original", "", "01") + hashElement("b", "original", "", "02"),
         "<hash><path previousPath=\"b\">a</path></hash><hash><path previousPath=\"a\">b</path></hash>"});
    const MHLHistory history = swapped.read();
    EXPECT_EQ(history.lastGood.at("a")->hashes[0].value, "02");
    EXPECT_EQ(history.lastGood.at("b")->hashes[0].value, "01");
}

TEST(MHLReader, KeepsPathsThatLeaveTheFolderOutOfEveryRecord) {
    std::string all = hashElement("good");
    const std::vector<std::string> bad{"../x", "/etc/passwd", "a/../../b", "", ".", "a//b", "./a"};
    for (const std::string& path : bad)
        all += hashElement(path);
    const Card card({all + hashElement("renamed", "original", " previousPath=\"../old\"")});
    const MHLHistory history = card.read();
    EXPECT_EQ(history.files.size(), 2U);
    EXPECT_EQ(history.generations[0].files.size(), 2U);
    EXPECT_FALSE(history.files.at("renamed")->previousPath);
    EXPECT_EQ(history.refusedPaths.size(), bad.size() + 1);
    EXPECT_EQ(history.chainProblems.size(), bad.size() + 1);
    EXPECT_EQ(history.chainProblems[0],
              "ASC MHL generation 1 lists a path outside the card folder, which is left aside: \"../x\"");

    Card outside({hashElement("a")});
    outside.entries[0].path = "../ascmhl/0001_A.mhl"; // the very file, by a way that must not be taken
    outside.writeChain();
    EXPECT_EQ(outside.read().files.size(), 0U);
    fs::remove_all(card.folder / "ascmhl");
    fs::create_directory_symlink(outside.folder / "ascmhl", card.folder / "ascmhl");
    EXPECT_THROW(card.read(), MHLFormatError);
}

TEST(MHLReader, TakesWhatOtherToolsWrite) {
    const MHLGeneration read = MHLReader::generationFromBytes(R"(<?xml version="1.0" encoding="UTF-8"?>
<m:hashlist xmlns:m="urn:ASC:MHL:v2.0" xmlns:x="urn:other" version="2.0">
  <m:creatorinfo>
    <m:creationdate>2020-01-16T09:15:00.250000-08:00</m:creationdate>
    <m:hostname>box</m:hostname><m:tool version="1">
      Another Tool
    </m:tool>
    <m:author><m:name>N</m:name></m:author><m:location>set</m:location><m:comment>c</m:comment>
  </m:creatorinfo>
  <m:processinfo>
    <m:process>in-place</m:process>
    <m:roothash><m:content><m:xxh64>1</m:xxh64></m:content><m:structure><m:xxh64>2</m:xxh64></m:structure></m:roothash>
    <m:ignore><m:pattern>.DS_Store</m:pattern><m:pattern> *.tmp </m:pattern></m:ignore>
  </m:processinfo>
  <m:hashes>
    <m:hash>
      <m:c4 action="original">c4abc</m:c4>
      <m:path creationdate="2020-01-15T13:00:00" lastmodificationdate="2020-01-15T13:00:00+02:00" size=" 5 ">Clips/A.mov</m:path>
      <m:md5 action="failed" hashdate="2020-01-16">
        ABCDEF
      </m:md5>
      <m:metadata><m:any xmlns:m="urn:ASC:MHL:v2.0"><m:path>no</m:path></m:any></m:metadata>
      <x:xxh64>stranger</x:xxh64>
    </m:hash>
    <m:directoryhash><m:path>Clips</m:path><m:content><m:xxh64>3</m:xxh64></m:content></m:directoryhash>
    <m:hash><m:path size="-4" lastmodificationdate="yesterday">
        Clips/B.mov
      </m:path><m:xxh3>9</m:xxh3></m:hash>
  </m:hashes>
  <m:references><m:hashlistreference><m:path>Sub/ascmhl/0001.mhl</m:path><m:c4>c4</m:c4></m:hashlistreference></m:references>
</m:hashlist>)",
                                                              4);
    EXPECT_EQ(read.tool, "Another Tool");
    EXPECT_EQ(read.ignore, (Problems{".DS_Store", "*.tmp"}));
    ASSERT_EQ(read.files.size(), 2U);
    const MHLFileRecord& first = *read.files[0];
    EXPECT_EQ(first.path, "Clips/A.mov");
    EXPECT_EQ(first.size, 5);
    EXPECT_EQ(first.modified, (Timestamp{1'579'086'000, 0}));
    EXPECT_EQ(first.generation, 4);
    ASSERT_EQ(first.hashes.size(), 2U);
    EXPECT_EQ(first.hashes[0].algorithm, "c4");
    EXPECT_EQ(first.hashes[1].value, "ABCDEF");
    EXPECT_TRUE(first.failed());
    EXPECT_EQ(read.files[1]->path, "Clips/B.mov");
    EXPECT_EQ(read.files[1]->size, std::nullopt);
    EXPECT_EQ(read.files[1]->modified, std::nullopt);
    EXPECT_EQ(MHLReader::generationFromBytes(generation(hashElement(" blanks are names ")), 1).files[0]->path,
              " blanks are names ");
}

TEST(NestedHistories, AreReadToABoundedDepth) {
    const test::TempFolder root;
    std::string folder = root.path() + "/";
    for (int i = 0; i < 20; ++i)
        folder += "n/";
    std::string inner; // the generation of the folder inside
    for (int depth = 20; depth >= 0; --depth, folder.resize(folder.size() - 2)) {
        std::string text = generation(hashElement("f"));
        if (!inner.empty())
            text.insert(text.rfind("</hashlist>"), "<references><hashlistreference><path>n/ascmhl/1.mhl</path><c4>" +
                                                       MHL::c4(inner) + "</c4></hashlistreference></references>");
        write(folder + "ascmhl/1.mhl", text);
        write(
            folder + "ascmhl/ascmhl_chain.xml",
            "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\"><hashlist sequencenr=\"1\"><path>1.mhl</path><c4>" +
                MHL::c4(text) + "</c4></hashlist></ascmhldirectory>");
        inner = text;
    }
    const auto nested = NestedHistories::read(root.path(), MHLReader::read(root.path()));
    EXPECT_EQ(nested.found.size(), 16U);
    EXPECT_EQ(nested.found.front().folder, "n");
    ASSERT_EQ(nested.problems.size(), 1U);
    EXPECT_TRUE(nested.problems[0].ends_with("names too many nested histories — the rest of them was not read."));
    std::int64_t left = 100; // shorter than a generation
    EXPECT_THROW(MHLReader::read(root.path(), {}, &left), MHLFormatError);
}

TEST(MHLReader, RefusesHostileDocuments) {
    std::string deep;
    for (int i = 0; i < 5000; ++i)
        deep += "<a>";
    const std::string bomb =
        "<!DOCTYPE h [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;\">]>";
    std::string manyHashes = "<hash><path>a</path>";
    for (int i = 0; i < 1000; ++i)
        manyHashes += "<xxh64>1</xxh64>";
    const std::pair<const char*, std::string> cases[] = {
        {"an entity bomb", bomb + generation(hashElement("&c;"))},
        {"an outside entity",
         "<!DOCTYPE h [<!ENTITY a SYSTEM \"file:///etc/passwd\">]>" + generation(hashElement("&a;"))},
        {"an undefined entity", generation(hashElement("&nbsp;"))},
        {"deep nesting", generation(deep)},
        {"a huge attribute", generation(hashElement("a", std::string(8 << 20, 'x')))},
        {"a huge text", generation(hashElement(std::string(1 << 20, 'x')))},
        {"a huge comment", generation("<!--" + std::string(8 << 20, 'x') + "-->")},
        {"a thousand digests of one file", generation(manyHashes + "</hash>")},
        {"a hash without a path", generation("<hash><xxh64>1</xxh64></hash>")},
        {"a size that no file has", generation("<hash><path size=\"9223372036854775807\">a</path></hash>")},
        {"another root", "<checksums/>"},
        {"another namespace", "<hashlist xmlns=\"urn:ASC:MHL:v9\"/>"},
        {"nothing", ""},
        {"half a file", generation(hashElement("a")).substr(0, 150)},
        {"two roots", generation("") + generation("")},
        {"bytes", std::string("\x00\xff\xfe garbage", 11)},
    };
    for (const auto& [what, text] : cases)
        EXPECT_THROW(MHLReader::generationFromBytes(text, 1), MHLFormatError) << what;
    for (const char* chain :
         {"<ascmhldirectory/>", "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\"><hashlist/>",
          "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\"><hashlist sequencenr=\"-1\"/></ascmhldirectory>",
          "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\"><hashlist sequencenr=\"9223372036854775807\"/>"
          "</ascmhldirectory>"})
        EXPECT_THROW(MHLReader::chainFromBytes(chain), MHLFormatError) << chain;
}

TEST(MHLReader, ReadsDatesAndNumbersOfFileNames) {
    EXPECT_EQ(MHLReader::parseDate(" 2020-01-16T09:15:00.000000+00:00\n")->seconds, 1'579'166'100);
    EXPECT_FALSE(MHLReader::parseDate("16.1.2020"));
    EXPECT_EQ(MHLReader::leadingNumber("0012_A.mhl"), 12);
    EXPECT_EQ(MHLReader::leadingNumber("7"), 7);
    EXPECT_EQ(MHLReader::leadingNumber("A_0012.mhl"), std::nullopt);
    EXPECT_EQ(MHLReader::leadingNumber("99999999999999999999_A.mhl"), std::nullopt);
}

TEST(IgnorePatterns, MatchByPathNameAndFolder) {
    const struct {
        std::string pattern;
        std::vector<std::string> ignored, kept;
    } cases[] = {
        {"_REPORT", {"_REPORT/x", "_REPORT"}, {"_REPORTS"}},
        {".DS_Store", {"a/b/.DS_Store"}, {"aDS_Store"}},
        {"ascmhl/", {"ascmhl/0001.mhl"}, {"ascmhl", "ascmhl2/x"}},
        {"*.tmp", {"a/b.tmp", "b.tmp/c"}, {"btmp"}},
        {"a/*.mov", {"a/b.mov"}, {"a/b/c.mov"}},
        {"a/**", {"a/b/c"}, {}},
        {"**/cache", {"x/y/cache", "cache"}, {}},
        {"a?c", {"abc", "aüc"}, {"a/c"}},
        {"a+(b)[c]$", {"a+(b)[c]$"}, {"aab"}},
        {"DCIM/*/", {"DCIM/100/x.mov"}, {"DCIM/x.mov"}},
        {"", {}, {"a"}},
    };
    for (const auto& c : cases) {
        const IgnorePatterns patterns(std::vector{c.pattern});
        for (const auto& path : c.ignored)
            EXPECT_TRUE(patterns.ignored(path)) << c.pattern << " on " << path;
        for (const auto& path : c.kept)
            EXPECT_FALSE(patterns.ignored(path)) << c.pattern << " on " << path;
    }
    EXPECT_EQ(IgnorePatterns::wildcard("**/a**b*?."), "(.*/)?a.*b[^/]*[^/]\\.");
    // A pattern that makes a backtracking matcher run for years, on a name that is not even text.
    std::string slow;
    for (int i = 0; i < 300; ++i)
        slow += "*a";
    EXPECT_FALSE(IgnorePatterns(std::vector{slow}).ignored(std::string(2000, 'a') + "\xff"));
}

} // namespace
} // namespace velmora
