#include "cli/Program.h"

namespace velmora {
namespace {

using test::Program;

// A run of `velmora settings` over a folder that several share.
struct Settings {
    test::TempFolder temp;
    std::string tool = temp / "ffmpeg";

    std::pair<int, std::string> run(std::vector<std::string> words) const {
        words.insert(words.begin(), "settings");
        Program program(words, {.environment = {"VELMORA_SETTINGS_DIR=" + temp / "s"}});
        const int status = program.wait();
        return {status, program.out() + program.err()};
    }
};

TEST(SettingsProgram, RefusesWhatNoProxyCouldBeMadeWith) {
    const Settings settings;
    test::FileTree::write(settings.temp / "short.cube", "LUT_3D_SIZE 2\n0 0 0\n");
    for (const auto& [key, value, said] : std::vector<std::array<std::string, 3>>{
             {"proxy.lutBuiltin", "gone", "There are: arri-logc4-awg4, "},
             {"proxy.lutMode", "builtin", "set proxy.lutBuiltin first"},
             {"proxy.lutPath", settings.temp / "short.cube", "is no 3D LUT"},
             {"proxy.lutPath", settings.temp / "none.cube", "is no 3D LUT"},
             {"tools.ffmpeg", settings.temp / "short.cube", "is no program that can be run"},
             {"proxy.height", "1000", "must be one of 540, 720, 1080, 2160"}}) {
        const auto [status, text] = settings.run({key, value});
        EXPECT_EQ(status, 2) << key;
        EXPECT_THAT(text, testing::HasSubstr(said));
    }
    EXPECT_FALSE(std::filesystem::exists(settings.temp / "s/settings.json")) << "nothing was changed";
    EXPECT_THAT(settings.run({"proxy.lutFallback"}).second, testing::HasSubstr("May be: arri-logc4-awg4, "));
}

TEST(SettingsProgram, TellsWhichProgramIsUsedAndWhatItLeavesOut) {
    const Settings settings;
    test::FileTree::write(settings.tool, "#!/bin/sh\necho ffmpeg version 99.1 Copyright\n");
    ::chmod(settings.tool.c_str(), 0755);
    EXPECT_THAT(settings.run({"tools.ffmpeg", settings.tool}).second,
                testing::HasSubstr("(used: ffmpeg 99.1 (" + settings.tool + "))"));
    std::filesystem::remove(settings.tool);
    EXPECT_THAT(settings.run({"tools.ffmpeg"}).second, testing::HasSubstr("(cannot be run; "));

    test::FileTree::write(settings.temp / "s/settings.json", R"({"proxy":{"lutMode":"builtin","lutBuiltin":"old"}})");
    const std::string text = settings.run({}).second;
    EXPECT_THAT(text, testing::HasSubstr("proxy.lutBuiltin names a built-in LUT that this version does not have: old"));
    EXPECT_THAT(text, testing::ContainsRegex("proxy.lutMode +auto"));
}

} // namespace
} // namespace velmora
