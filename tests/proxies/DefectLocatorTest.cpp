#include "proxies/DefectLocator.h"

#include <fmt/format.h>

namespace velmora {
namespace {

std::string frame(double time, std::string_view message = {}, int level = 16, int stream = 0) {
    const std::string log =
        message.empty() ? "" : fmt::format(R"(,"logs":[{{"level":{},"message":"{}"}}])", level, message);
    return fmt::format(R"({{"stream_index":{},"best_effort_timestamp_time":"{}"{}}},)", stream, time, log);
}

TEST(DefectLocator, FindsTheFrameByWhatItsDecoderSaid) {
    struct Case {
        const char* name;
        std::string frames;
        std::optional<std::int64_t> wanted;
    };
    const std::string words = "error while decoding MB 1 2";
    for (
        const Case& c : {
            Case{"nothing", frame(10) + frame(10.04) + frame(10.08), {}},
            Case{"a warning", frame(10) + frame(10.04, "odd", 24), {}},
            Case{"words", frame(10) + frame(10.04, "odd") + frame(10.08, words) + frame(10.12, words), 2},
            Case{"an error", frame(10) + frame(10.04, "odd") + frame(10.08, "odd"), 1},
            Case{"a gap", frame(10) + frame(10.04) + frame(10.12, "odd") + frame(10.16), 2},
            Case{"two streams",
                 frame(10) + frame(10, {}, 0, 1) + frame(10.5) + frame(10.02, {}, 0, 1) + frame(10.06, {}, 0, 1), 1},
            Case{"before the start", frame(1, words), {}},
            Case{
                "hostile",
                R"({"best_effort_timestamp_time":"nan"},{"logs":7},1,{"best_effort_timestamp_time":"1e300","logs":[{"message":"error splitting"}]},)",
                {}},
        }) {
        std::string text = R"({"streams":[{"start_time":"N/A"},{"start_time":"10.000000"}],"frames":[)" + c.frames;
        text.back() = ']';
        EXPECT_EQ(DefectLocator::firstDefect(text + "}", 25), c.wanted) << c.name;
    }
    EXPECT_FALSE(DefectLocator::firstDefect("{}", 25));
}

TEST(DefectLocator, LosesNoDefectToACancel) {
    ClipContent content;
    content.kind = "decode";
    content.frame = 7;
    ClipInfo info;
    info.frameRate = "25";
    info.audioChannels = 2;
    ExternalTools tools;
    tools.ffprobe = "/bin/false";
    const ClipContent heard = content;
    DefectLocator::refine(content, "/a.mov", info, tools, [] { return true; });
    EXPECT_EQ(content, heard);
}

} // namespace
} // namespace velmora
