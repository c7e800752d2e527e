#include "base/Hex.h"
#include "base/Product.h"
#include "base/RelativePath.h"
#include "base/Text.h"

namespace velmora {
namespace {

using namespace std::string_literals;

TEST(Text, PathKeysFoldUnicodeCaseAndKeepInvalidBytes) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"DCIM/A001.MOV", "dcim/a001.mov"},
        {"ÄÖÜ/Ñandú", "äöü/ñandú"},
        {"ДЕНЬ1/КАМЕРА", "день1/камера"},
        {"\xFF"
         "ABC\xC3",
         "\xFF"
         "abc\xC3"},                          // a stray byte and a cut sequence stay where they are
        {"É\xED\xA0\x80X", "é\xED\xA0\x80x"}, // an encoded surrogate is no character
        {"🎬CLIP", "🎬clip"},
        {"", ""},
    };
    for (const auto& [path, key] : cases) {
        EXPECT_EQ(pathKey(path), key) << escapeForDisplay(path);
        EXPECT_EQ(pathKey(key), key) << "a key is its own key";
    }
}

TEST(Text, CollisionKeysJoinWhatOneDiskMayFoldIntoOneName) {
    EXPECT_EQ(collisionKey("Stra\u00DFe"), collisionKey("STRASSE"));
    EXPECT_EQ(collisionKey("e\u0301t\u00E9"), collisionKey("\u00C9TE\u0301")); // composed and decomposed
    EXPECT_EQ(collisionKey("ΟΔΟΣ"), collisionKey("οδος"));
    EXPECT_NE(collisionKey("A001"), collisionKey("A002"));
    EXPECT_NE(collisionKey("\xFF"), collisionKey("\xFE"));
}

TEST(Text, TellsWhichNamesARecordCanHold) {
    const std::vector<std::pair<std::string, bool>> cases{
        {"A001_C001.MOV", true},
        {"взгляд 🎥 \"&<>'", true},
        {"", false},
        {"a\nb", false},
        {"a\tb", false},
        {"bell\x07", false},
        {"del\x7F", false},
        {"nul\0l"s, false},
        {"c1 \u0085", false},
        {"noncharacter \uFFFF", false}, // XML cannot write it
        {"latin1 \xE9.mov", false},
        {"overlong \xC0\xAF", false},
        {"surrogate \xED\xA0\x80", false},
        {"cut \xE2\x82", false},
    };
    for (const auto& [name, recordable] : cases)
        EXPECT_EQ(isRecordableName(name), recordable) << escapeForDisplay(name);
}

TEST(Text, EscapesForDisplayWithoutEverMakingTwoNamesOne) {
    EXPECT_EQ(escapeForDisplay("clip\n\xE9.mov"), "clip\\x0A\\xE9.mov");
    EXPECT_EQ(escapeForDisplay("ok Ü 🎬"), "ok Ü 🎬");
    EXPECT_NE(escapeForDisplay("a\x01"), escapeForDisplay("a\\x01"));
    for (const std::string& bytes : {"\xFF\xFE"s, "a\0b"s, "\u0085"s, "x\xF0\x9F"s}) {
        EXPECT_TRUE(isRecordableName(escapeForDisplay(bytes)));
        EXPECT_TRUE(isValidUtf8(withValidUtf8(bytes)));
    }
    EXPECT_EQ(withValidUtf8("a\xFFz"), "a\uFFFDz");
}

TEST(Text, CutsAtCharacterBoundaries) {
    const std::string text = "aé漢🎬z"; // 1, 2, 3, 4, 1 bytes
    const std::vector<std::size_t> lengths{0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 11, 11};
    for (std::size_t limit = 0; limit < lengths.size(); ++limit)
        EXPECT_EQ(cutUtf8(text, limit).size(), lengths[limit]) << limit;
    EXPECT_EQ(cutUtf8("\x80\x80\x80\x80\x80\x80\x80\x80", 6).size(), 3u); // never gives up more than one sequence
}

TEST(Text, TrimsWhiteSpaceOfAnyScriptAndNothingElse) {
    EXPECT_EQ(trim(" \t\r\n A 001 \u00A0\u3000\u2028"), "A 001");
    EXPECT_EQ(trim("\u3000 "), "");
    EXPECT_EQ(trim(""), "");
    EXPECT_EQ(trim(" \xFFname\xFF "), "\xFFname\xFF");
}

TEST(Text, OrdersAsUtf16CodeUnits) {
    // In UTF-16, U+10000 and above (surrogates) come before U+E000 … U+FFFF; in UTF-8 bytes they come after.
    const std::vector<std::string> ordered{"",           "A",  "a",          "a/b",    "ab",     "é",     "\uD7FF",
                                           "\U00010000", "🎬", "\U0010FFFF", "\uE000", "\uFB01", "\uFFFD"};
    for (std::size_t i = 0; i < ordered.size(); ++i)
        for (std::size_t k = 0; k < ordered.size(); ++k) {
            const int wanted = i < k ? -1 : i > k ? 1 : 0;
            EXPECT_EQ(compareUtf16(ordered[i], ordered[k]), wanted) << i << " " << k;
            EXPECT_EQ(compareUtf16("x" + ordered[i], "x" + ordered[k]), wanted);
        }
}

TEST(Text, SortsNaturallyWithNumbersAndWithoutCase) {
    std::vector<std::string> names{"clip10", "Clip2", "A010", "a002", "clip2b", "Éclair", "eclipse", "clip1"};
    std::stable_sort(names.begin(), names.end(), [](const auto& a, const auto& b) { return compareNatural(a, b) < 0; });
    EXPECT_THAT(names,
                ::testing::ElementsAre("a002", "A010", "clip1", "Clip2", "clip2b", "clip10", "Éclair", "eclipse"));
    EXPECT_EQ(compareNatural("CLIP1", "clip01"), 0);
    EXPECT_LT(compareNatural("a19z", "a20"), 0); // a number of as many digits decides,
    EXPECT_GT(compareNatural("a1٣٣", "a2"), 0);  // but not the half of a longer one
    EXPECT_NE(compareNatural("\xFF", "a"), 0);
}

TEST(Text, FormatsSizesInPowersOfThousandWithoutRoundingToFourDigits) {
    struct Case {
        std::int64_t bytes;
        const char* full;
        const char* brief;
    };
    for (const Case& c :
         {Case{0, "0 B", "0 B"}, Case{999, "999 B", "999 B"}, Case{1000, "1 kB", "1 kB"},
          Case{999'499, "999 kB", "999 kB"}, Case{999'500, "1.0 MB", "1.0 MB"}, Case{3'460'000, "3.5 MB", "3.5 MB"},
          Case{64'000'000'000, "64.00 GB", "64 GB"}, Case{999'949'999, "999.9 MB", "1.0 GB"},
          Case{999'960'000, "1.00 GB", "1.0 GB"}, Case{9'960'000'000, "9.96 GB", "10 GB"},
          Case{1'999'999'999'999, "2.00 TB", "2.0 TB"}, Case{-5'000'000, "-5.0 MB", "-5.0 MB"},
          Case{std::numeric_limits<std::int64_t>::max(), "9.22 EB", "9.2 EB"}}) {
        EXPECT_EQ(formatBytes(c.bytes), c.full);
        EXPECT_EQ(formatBytesShort(c.bytes), c.brief) << c.bytes;
    }
    EXPECT_EQ(countedFiles(1) + ", " + countedFiles(0) + ", " + countedFiles(2), "1 file, 0 files, 2 files");
}

TEST(Text, SplitsAndReplaces) {
    using Views = std::vector<std::string_view>;
    EXPECT_EQ(split("a//b/", '/'), (Views{"a", "", "b", ""}));
    EXPECT_EQ(split("a//b/", '/', false), (Views{"a", "b"}));
    EXPECT_EQ(split("", '/'), (Views{""}));
    EXPECT_EQ(split("", '/', false), Views{});
    EXPECT_EQ(join({"a", "b"}, ", ") + join({}, ", "), "a, b");
    EXPECT_EQ(replaceAll("aaa", "aa", "b"), "ba");
    EXPECT_EQ(replaceAll("abc", "", "x"), "abc");
}

TEST(RelativePath, RefusesEverythingThatCouldLeaveTheRoot) {
    for (const std::string& path : {""s, "/"s, "/etc/passwd"s, ".."s, "../x"s, "a/../../x"s, "a/.."s, "./a"s, "a/./b"s,
                                    "a//b"s, "a/"s, "a\0b"s}) {
        EXPECT_FALSE(isSafeRelative(path)) << escapeForDisplay(path);
        EXPECT_THROW(RelativePath::join("/root", path), std::invalid_argument);
    }
    for (const std::string& path : {"a"s, "a/b.mov"s, "..."s, "..a/b.."s, ".hidden"s, "a\\..\\b"s, "\xFF"s})
        EXPECT_TRUE(isSafeRelative(path)) << escapeForDisplay(path);
    EXPECT_EQ(RelativePath::join("/root/", "a/b"), "/root/a/b");
    EXPECT_EQ(RelativePath::join("/", "a"), "/a");
}

TEST(RelativePath, TakesPathsApart) {
    struct Case {
        const char *path, *folder, *name, *stem, *extension;
    };
    for (const Case& c : {Case{"DCIM/100/A.B.MOV", "DCIM/100", "A.B.MOV", "A.B", "MOV"}, Case{"A", "", "A", "A", ""},
                          Case{"d.x/.hidden", "d.x", ".hidden", ".hidden", ""}, Case{"d/end.", "d", "end.", "end", ""},
                          Case{"/Volumes", "", "Volumes", "Volumes", ""}}) {
        EXPECT_EQ(RelativePath::folder(c.path), c.folder);
        EXPECT_EQ(RelativePath::name(c.path), c.name);
        EXPECT_EQ(RelativePath::stem(c.path), c.stem);
        EXPECT_EQ(RelativePath::extension(c.path), c.extension);
    }
    EXPECT_EQ(RelativePath::withoutTrailingSlash("/a//") + RelativePath::withoutTrailingSlash("//"), "/a/");
}

TEST(Hex, WritesLowerCaseAndParsesExactlySixteenDigits) {
    EXPECT_EQ(Hex::of64(0x0000'00FF'ABCD'0001), "000000ffabcd0001");
    const unsigned char bytes[]{0x00, 0x7F, 0xFF};
    EXPECT_EQ(Hex::ofBytes(bytes), "007fff");
    EXPECT_EQ(Hex::parse64("00FFabcdEF012345"), 0x00FF'ABCD'EF01'2345u);
    EXPECT_EQ(Hex::parse64("ffffffffffffffff"), ~std::uint64_t{0});
    for (const char* bad : {"", "0", "fffffffffffffff", "fffffffffffffffff", "0x00000000000000", " 000000000000000",
                            "+000000000000000", "000000000000000g"})
        EXPECT_FALSE(Hex::parse64(bad)) << bad;
}

TEST(Product, ShowsItsNameForRecordsOfEarlierBuilds) {
    EXPECT_EQ(Product::toolName("OffLoad"), "Velmora");
    EXPECT_EQ(Product::toolName("Offloader"), "Offloader");
}

} // namespace
} // namespace velmora
