#include "cli/TerminalText.h"

namespace velmora {
namespace {

TEST(TerminalText, CountsCellsAsATerminalDoes) {
    const std::pair<std::string, std::size_t> cases[] = {
        {"", 0},     {"A001.MOV", 8},           {"映像.mov", 8},     {"cafe\u0301", 4}, {"caf\u00e9", 4},
        {"🎬", 2},   {"👩‍👩‍👧", 2}, {"\u2764\uFE0F", 2}, {"ｱｲ", 2},         {"Ａ", 2},
        {"한글", 4},
    };
    for (const auto& [text, cells] : cases)
        EXPECT_EQ(TerminalText::width(text), cells) << text;
}

TEST(TerminalText, LetsNothingThroughThatMovesTheCursor) {
    EXPECT_EQ(TerminalText::printable("a\x1b[2Jb\n\r\tc"), "a\\x1B[2Jb\\x0A\\x0D\\x09c");
    EXPECT_EQ(TerminalText::printable("bad\xff\xc3name"), "bad\\xFF\\xC3name");
    EXPECT_EQ(TerminalText::printable("x\u202Egnp.exe"), "x\\xE2\\x80\\xAEgnp.exe"); // right-to-left override
    EXPECT_EQ(TerminalText::printable("日本 ünï 🎬"), "日本 ünï 🎬");
}

TEST(TerminalText, CutsWithoutSplittingACharacterOrPassingTheWidth) {
    const std::string names[] = {
        "A001_C001_0321AB.mov", "映像素材の名前がとても長い.mov", "e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301",
        "👩‍👩‍👧👩‍👩‍👧👩‍👩‍👧👩‍👩‍👧", "\x01\x02\x03\x04\x05\x06"};
    for (const auto& name : names) {
        const auto whole = TerminalText::width(TerminalText::printable(name));
        for (std::size_t columns = 0; columns <= whole + 2; ++columns) {
            for (const auto& cut : {TerminalText::fit(name, columns), TerminalText::fitMiddle(name, columns)}) {
                EXPECT_LE(TerminalText::width(cut), columns) << name;
                EXPECT_EQ(TerminalText::printable(cut), cut) << "cut through a character: " << name;
                if (columns >= whole) {
                    EXPECT_EQ(cut, TerminalText::printable(name));
                } else if (columns > 0) {
                    EXPECT_NE(cut.find("…"), std::string::npos);
                }
            }
        }
    }
    EXPECT_EQ(TerminalText::fitMiddle("/media/dit/CARD/A001.mov", 16), "/medi…D/A001.mov");
}

} // namespace
} // namespace velmora
