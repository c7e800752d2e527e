#include "clips/FFProbe.h"
#include "luts/Picture.h"
#include "luts/Recipe.h"
#include "proxies/FilterGraph.h"
#include "proxies/LutCatalog.h"
#include "proxies/ToolProcess.h"

#include <cmath>

namespace velmora {
namespace {

using luts::Vec3;

// Greys, skins, and lights as strong as neon and blue diodes are.
const std::vector<Vec3> scene{{0, 0, 0},         {0.02, 0.02, 0.02}, {0.18, 0.18, 0.18}, {0.5, 0.5, 0.5},
                              {0.9, 0.9, 0.9},   {4, 4, 4},          {0.08, 0.04, 0.03}, {0.3, 0.17, 0.12},
                              {0.6, 0.42, 0.34}, {1.5, 0.05, 0.03},  {0.02, 0.06, 2},    {0.1, 1.2, 0.2},
                              {0.9, 0.65, 0.05}, {0.01, 0.02, 0.3},  {0.5, 0.02, 0.6},   {0.05, 0.5, 0.6}};
constexpr int patch = 16, lines = 720; // as high as a camera's picture

// The scene as the camera writes it, in flat columns. A file of video range has the same codes as a full one;
// it is the decoder that takes them for something else.
void writeChart(const std::string& path, const luts::Recipe& recipe, bool fullRange) {
    std::string row;
    for (const Vec3& light : scene) {
        std::string pixel;
        for (const double video : recipe.codeOf(light)) {
            const double value = std::clamp(fullRange ? luts::toCode(video) : video, 0.0, 1.0);
            const auto sample = static_cast<unsigned>(std::lround(value * 65535));
            pixel += {static_cast<char>(sample >> 8), static_cast<char>(sample & 255)};
        }
        for (int i = 0; i < patch; ++i)
            row += pixel;
    }
    std::string picture = "P6\n" + std::to_string(patch * scene.size()) + " " + std::to_string(lines) + "\n65535\n";
    for (int i = 0; i < lines; ++i)
        picture += row;
    test::FileTree::write(path, picture);
}

struct Kind {
    const char* name;
    bool fullRange, tagged;
};

// What a proxy shows of each patch, from 0 to 255.
std::vector<Vec3> proxyOf(const test::TempFolder& temp, const luts::Recipe& recipe, const Kind& kind) {
    const std::string file = temp / "clip.mkv", range = kind.fullRange ? "pc" : "tv";
    writeChart(temp / "chart.ppm", recipe, kind.fullRange);
    std::vector<std::string> words{"-v",
                                   "error",
                                   "-y",
                                   "-i",
                                   temp / "chart.ppm",
                                   "-vf",
                                   "scale=out_color_matrix=bt709:out_range=" + range + ",format=yuv444p12le",
                                   "-c:v",
                                   "ffv1",
                                   "-color_range",
                                   range};
    if (kind.tagged)
        words.insert(words.end(), {"-colorspace", "bt709"});
    words.push_back(file);
    ToolProcess::run("/usr/bin/ffmpeg", words);
    const ClipInfo info = FFProbe::parse(ToolProcess::run("/usr/bin/ffprobe", {"-v", "error", "-print_format", "json",
                                                                               "-show_streams", "-show_format", file}),
                                         Timestamp::now());

    std::filesystem::copy_file(LutCatalog::load().find(recipe.id)->path, temp / "lut.cube",
                               std::filesystem::copy_options::overwrite_existing);
    ProxySettings settings;
    settings.height = lines;
    settings.codec = ProxyCodec::proresProxy;
    FilterGraph::Video video;
    video.lut = "lut.cube";
    video.needsPreMap = FilterGraph::needsPreMap(info, false, true);
    video.assumesRec709 = FilterGraph::assumesRec709(info);
    const std::string middle = ",crop=iw:1,scale=in_color_matrix=bt709,format=rgb48le";
    const std::string row =
        ToolProcess::run("/usr/bin/ffmpeg",
                         {"-v", "error", "-i", file, "-vf", FilterGraph::video(settings, video) + middle, "-frames:v",
                          "1", "-f", "rawvideo", "-"},
                         temp.path());
    std::vector<Vec3> shown;
    for (std::size_t i = 0; i < scene.size(); ++i)
        for (std::size_t part = 0; part < 3; ++part) {
            if (part == 0)
                shown.emplace_back();
            const std::size_t at = 2 * (3 * (i * patch + patch / 2) + part);
            const auto byte = [&](std::size_t n) { return static_cast<unsigned char>(row.at(n)); };
            shown.back()[part] = (byte(at) + 256.0 * byte(at + 1)) / 257;
        }
    return shown;
}

TEST(LutChart, LooksTheSameFromFullAndVideoRangeAndWithoutATag) {
    const test::TempFolder temp;
    for (const luts::Recipe& recipe : luts::all()) {
        const std::vector<Vec3> full = proxyOf(temp, recipe, {"full", true, true});
        for (std::size_t i = 0; i < scene.size(); ++i)
            for (std::size_t part = 0; part < 3; ++part)
                EXPECT_NEAR(full[i][part], 255 * luts::Picture::render(scene[i])[part], i < 9 ? 3 : 8)
                    << recipe.id << ", patch " << i;
        for (const Kind& kind : {Kind{"video", false, true}, {"video untagged", false, false}}) {
            const std::vector<Vec3> other = proxyOf(temp, recipe, kind);
            for (std::size_t i = 0; i < scene.size(); ++i)
                for (std::size_t part = 0; part < 3; ++part)
                    EXPECT_NEAR(other[i][part], full[i][part], 2) << recipe.id << ", " << kind.name << ", patch " << i;
        }
    }
}

} // namespace
} // namespace velmora
