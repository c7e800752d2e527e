#include "proxies/LutCatalog.h"
#include "platform/IO.h"
#include "platform/OwnProgram.h"
#include "proxies/CubeCheck.h"
#include "proxies/LutOption.h"

namespace velmora {
namespace {

using test::TempFolder;
namespace FileTree = test::FileTree;

std::string cube(int size, int lines, const std::string& line = "0.5 0.5 0.5\n") {
    std::string text = "# made by hand\nTITLE \"x\"\nLUT_3D_SIZE " + std::to_string(size) + "\nDOMAIN_MIN 0 0 0\n";
    for (int i = 0; i < lines; ++i)
        text += line;
    return text;
}

TEST(LutCatalog, TakesATableOnlyWhenItIsWhole) {
    TempFolder temp;
    for (const auto& [text, valid] : std::vector<std::pair<std::string, bool>>{
             {cube(2, 8), true},
             {cube(2, 9), true},
             {cube(2, 7), false},
             {cube(2, 7) + "0 0 1", true}, // no line end behind the last
             {cube(2, 8, " -1e-3\t+.5 1 \r\n"), true},
             {cube(2, 8, "0.5 0.5\n"), false},
             {cube(2, 8, "0.5 0.5 0.5 0.5\n"), false},
             {cube(2, 8, "0.5 nan inf\n"), false},
             {cube(2, 8, "0.5 0.5 1e999\n"), true}, // as far as a float goes; a renderer clips it
             {"DOMAIN_MAX 1 1 1.0000001\nLUT_3D_INPUT_RANGE 0.0 1.0\n" + cube(2, 8), true},
             {"DOMAIN_MAX 1 2 1\n" + cube(2, 8), false},
             {"DOMAIN_MIN -0.1 0 0\n" + cube(2, 8), false},
             {"LUT_3D_INPUT_RANGE 0.0 4.0\n" + cube(2, 8), false},
             {"LUT_1D_SIZE 2\n" + cube(2, 8), false},
             {cube(1, 8), false},
             {cube(257, 8), false},
             {"LUT_3D_SIZE 99999999999999999999\n", false},
             {"LUT_3D_SIZE 2.5\n" + cube(2, 8), false},
             {"LUT_3D_SIZE\n", false},
             {"LUT_1D_SIZE 8\n" + std::string(8, '0'), false},
             {" " + cube(2, 8).substr(0, 3), false},
             {std::string(100'000, '0'), false},
             {"", false}}) {
        FileTree::write(temp / "x.cube", text);
        EXPECT_EQ(LutCatalog::isValidCube(temp / "x.cube"), valid) << text.substr(0, 80);
        CubeCheck inPieces; // wherever a read ends
        for (std::size_t at = 0; at < text.size() && inPieces.feed(text.substr(at, 1)) == CubeCheck::Answer::open; ++at)
            ;
        EXPECT_EQ(inPieces.end() == CubeCheck::Answer::valid, valid) << text.substr(0, 80);
    }
    EXPECT_FALSE(LutCatalog::isValidCube(temp.path()));
    EXPECT_FALSE(LutCatalog::isValidCube(temp / "none.cube"));
    ASSERT_EQ(::mkfifo((temp / "pipe.cube").c_str(), 0600), 0);
    EXPECT_FALSE(LutCatalog::isValidCube(temp / "pipe.cube")) << "nobody ever writes into it";
    // A gigabyte without a line end, and one behind a table that is complete: little of either is read.
    for (const auto& [text, valid] : {std::pair{std::string(), false}, {cube(2, 8), true}}) {
        FileTree::write(temp / "x.cube", text);
        std::filesystem::resize_file(temp / "x.cube", 1 << 30);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(LutCatalog::isValidCube(temp / "x.cube"), valid);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    }
}

TEST(LutCatalog, ReadsWhatIsThereAndDropsTheRest) {
    TempFolder temp;
    const std::string rest = R"("name":"N","maker":"M","curve":"C","gamut":"G"})";
    FileTree::write(temp / "a.cube", cube(2, 8));
    FileTree::write(temp / "luts.json",
                    R"([{"id":"a","file":"a.cube",)" + rest + R"(,{"id":"gone","file":"gone.cube",)" + rest +
                        R"(,{"id":"a","file":"b.cube",)" + rest + R"(,{"id":"../up","file":"a.cube",)" + rest +
                        R"(,{"id":"up","file":"..)" + temp.path().substr(temp.path().rfind('/')) + R"(/a.cube",)" +
                        rest + R"(,{"id":7,"file":"a.cube",)" + rest + R"(,{"id":"b"},null])");
    const LutCatalog catalog = LutCatalog::load(temp.path());
    EXPECT_EQ(catalog.luts, (std::vector<BuiltinLut>{{"a", "N", "M", "a.cube", "C", "G", temp / "a.cube"}}));
    EXPECT_EQ(catalog.folder, temp.path());
    for (const char* damaged : {"", "{}", "[", "7"}) {
        FileTree::write(temp / "luts.json", damaged);
        EXPECT_TRUE(LutCatalog::load(temp.path()).luts.empty()) << damaged;
    }
    EXPECT_TRUE(LutCatalog::load(temp / "none").luts.empty());
}

TEST(LutCatalog, IsFoundInAnInstalledTreeAndFromABuildFolder) {
    TempFolder temp;
    FileTree::write(temp / "usr/share/velmora/luts/luts.json", "[]");
    FileTree::write(temp / "build/tree/data/luts/luts.json", "[]");
    const auto found = [&](const std::string& program, const std::string& resources) {
        return LutCatalog::findFolder(temp / program, temp / resources);
    };
    EXPECT_EQ(found("usr/bin/velmora", "usr/share/velmora"), temp / "usr/share/velmora/luts");
    EXPECT_EQ(found("build/tree/build/release/bin/velmora", "none"), temp / "build/tree/data/luts");
    EXPECT_EQ(found("build/tree/build/build/bin/velmora", "none"), temp / "build/tree/data/luts");
    EXPECT_EQ(found("build/tree/bin/velmora", "none"), std::nullopt);
    // This very program stands in a build folder.
    const LutCatalog own = LutCatalog::load();
    EXPECT_THAT(own.ids(), ::testing::ElementsAre("arri-logc4-awg4", "arri-logc3-awg3", "red-log3g10-rwg",
                                                  "bmd-film-gen5", "sony-slog3-sgamut3", "sony-slog3-sgamut3cine"));
    for (const BuiltinLut& lut : own.luts)
        EXPECT_TRUE(LutCatalog::isValidCube(lut.path)) << lut.path;
}

TEST(LutCatalog, TheUsersOwnFileTakesThePlaceOfABuiltinOne) {
    TempFolder temp;
    const LutCatalog catalog{temp.path(),
                             {{"a", "A", "", "a.cube", "", "", "/a"}, {"b", "B", "", "b.cube", "", "", "/b"}}};
    FileTree::write(temp / "1/b.cube", cube(2, 7));
    FileTree::write(temp / "2/a.cube", cube(2, 8));
    FileTree::write(temp / "2/b.cube", cube(2, 8));
    FileTree::write(temp / "3/b.cube", cube(2, 8));
    const LutCatalog mine = catalog.withUserOverrides({temp / "1", temp / "2", temp / "3"});
    EXPECT_EQ(mine.luts[0].path, temp / "2/a.cube");
    EXPECT_EQ(mine.luts[0].name, "A (own file)");
    EXPECT_EQ(mine.luts[1].path, temp / "2/b.cube") << "a file that is no table is passed over, then the first wins";
    EXPECT_EQ(catalog.withUserOverrides({temp / "1"}).luts, catalog.luts);
}

TEST(LutOption, ReadsWhatAPersonTypes) {
    using LutOption::Parsed;
    const LutCatalog catalog{{}, {{"a", "", "", "", "", "", ""}, {"b", "", "", "", "", "", ""}}};
    const std::string choices = ". Use auto, none, a path to a .cube or one of: a, b";
    struct Case {
        std::optional<std::string> text, fallback;
        Parsed wanted;
    };
    for (const Case& c : std::vector<Case>{
             {{}, {}, {}},
             {"none", "none", {LutMode::off, {}, {}, "", {}}},
             {"auto", "auto", {LutMode::automatic, {}, {}, "", {}}},
             {"my/x.CUBE", "b", {LutMode::custom, {}, "my/x.CUBE", "b", {}}},
             {"a", "/x.cube", {LutMode::builtin, "a", {}, "/x.cube", {}}},
             {".cube", {}, {{}, {}, {}, {}, "Unknown LUT “.cube”" + choices}},
             {"", {}, {{}, {}, {}, {}, "Unknown LUT “”" + choices}},
             {"auto", "A\n", {LutMode::automatic, {}, {}, "", "Unknown fallback LUT “A\\x0A”" + choices}}})
        EXPECT_EQ(LutOption::parse(c.text, c.fallback, catalog), c.wanted) << c.text.value_or("-");

    ProxySettings settings;
    settings.lutMode = LutMode::off;
    settings.lutFallback = "b";
    LutOption::parse("x.cube", {}, catalog).applyTo(settings);
    EXPECT_EQ(settings.lutMode, LutMode::custom);
    EXPECT_EQ(settings.lutPath, "x.cube");
    EXPECT_EQ(settings.lutFallback, "b") << "what was not typed stays";
    LutOption::parse({}, "none", catalog).applyTo(settings);
    EXPECT_EQ(settings.lutFallback, std::nullopt);
}

} // namespace
} // namespace velmora
