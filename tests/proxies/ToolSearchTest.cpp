#include "proxies/ToolSearch.h"
#include "proxies/ToolProcess.h"

#include <fmt/format.h>

namespace velmora {
namespace {

std::string tool(const std::string& path, const std::string& script) {
    test::FileTree::write(path, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

TEST(ToolSearch, KeepsWhatIsConfiguredAndLooksForTheRestInOrder) {
    const test::TempFolder folder;
    const auto folders = ToolSearch::searchDirs(folder / "a/b/c/d/e/f/bin/velmora", {folder / "support"});
    const std::string above = tool(folder / "a/b/c/d/Tools/bin/ffmpeg", "");
    tool(folder / "support/bin/ffmpeg", "");
    const std::string braw = tool(folder / "support/bin/braw-decode", "");
    tool(folder / "a/Tools/bin/art-cmd", ""); // six folders up: too far
    const std::string own = tool(folder / "own/REDline", "");
    test::FileTree::write(folder / "own/ffprobe", "not executable");
    std::filesystem::create_directories(folder / "a/b/c/d/e/f/bin/ffprobe"); // a folder is no tool

    const ExternalTools found =
        ToolSearch::resolved({folder / "gone", folder / "own/ffprobe", own, {}, std::string()}, folders);
    EXPECT_EQ(found.ffmpeg, above);
    EXPECT_EQ(found.redline, own);
    EXPECT_EQ(found.brawDecoder, braw);
    EXPECT_EQ(found.artCmd, std::nullopt);
    EXPECT_NE(found.ffprobe, folder / "own/ffprobe");
}

TEST(ToolSearch, NamesTheVersionOfWhatWasFound) {
    const test::TempFolder folder;
    const std::string good = tool(folder / "ffmpeg", "echo 'ffmpeg version 9.1-x Copyright'; echo more");
    EXPECT_EQ(ToolSearch::version(good), fmt::format("ffmpeg 9.1-x ({})", good));
    for (const char* script : {"echo hello", "exit 1", ""})
        EXPECT_EQ(ToolSearch::version(tool(folder / "bad", script)), std::nullopt) << script;
}

TEST(ToolProcess, FixesTheLocaleAndMixesTheStreams) {
    for (const char* name : {"FFREPORT", "http_proxy"})
        ::setenv(name, "somewhere", 1);
    const auto [status, output] = ToolProcess::runCombined(
        "/bin/sh", {"-c", "pwd; echo $LC_ALL ${FFREPORT-none} ${http_proxy-none} >&2; exit 4"}, "/usr", {});
    for (const char* name : {"FFREPORT", "http_proxy"})
        ::unsetenv(name);
    EXPECT_EQ(status, 4);
    EXPECT_EQ(output, "/usr\nC.UTF-8 none none\n");
    EXPECT_EQ(ToolProcess::run("/bin/sh", {"-c", "echo out; echo err >&2"}), "out\n");
    EXPECT_EQ(test::refusal<ToolError>(
                  [] { ToolProcess::runCombined("/bin/sh", {"-c", "sleep 60"}, "", [] { return true; }); }),
              "sh failed (exit 143): cancelled");
    EXPECT_EQ(test::refusal<ToolError>([] { ToolProcess::run("/bin/sh", {"-c", "seq 5 >&2; echo >&2; exit 2"}); }),
              "sh failed (exit 2): 3 | 4 | 5");
    EXPECT_STREQ(ToolError("art-cmd", 1, "\n\n").what(), "art-cmd failed (exit 1)");
}

} // namespace
} // namespace velmora
