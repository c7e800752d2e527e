#include "clips/ClipDetector.h"

namespace velmora {
namespace {

std::vector<SourceFile> card(std::initializer_list<const char*> paths, std::int64_t size = 10) {
    std::vector<SourceFile> files;
    for (const char* path : paths)
        files.push_back({path, size, {}});
    return files;
}

std::vector<std::string> describe(const std::vector<Clip>& clips) {
    std::vector<std::string> lines;
    for (const Clip& clip : clips)
        lines.push_back(clip.name + " " + clip.path + " " + std::string(name(clip.format)) + " " +
                        std::to_string(clip.segments.size()) + " " + std::to_string(clip.bytes));
    return lines;
}

TEST(ClipDetector, JoinsSegmentsAndFramesAndSortsAsAFileBrowser) {
    const auto clips = ClipDetector::detect(card({
        "B/A010.mov",
        "B/a002.MOV",
        "RED/A001_C002_0101AB_010.R3D",
        "RED/A001_C002_0101AB_002.R3D",
        "RED/A001_C002_0101AB_001.R3D",
        "RED/clip_0001.R3D",
        "x_001.r3d",
        "ARRI/T2/f1.ari",
        "ARRI/T1/f2.ari",
        "ARRI/T1/f1.ari",
        "b.braw",
        "c.CRM",
        "_PROXY/x.mov",
        "_REPORT/y.mov",
        "Day1/_PROXY/x.mov",
        "sound.wav",
        ".mov",
    }));
    EXPECT_EQ(describe(clips), (std::vector<std::string>{
                                   "T1 ARRI/T1 arriraw 2 20",
                                   "T2 ARRI/T2 arriraw 1 10",
                                   "b b.braw braw 1 10",
                                   "a002 B/a002.MOV video 1 10",
                                   "A010 B/A010.mov video 1 10",
                                   "c c.CRM canonRaw 1 10",
                                   "x Day1/_PROXY/x.mov video 1 10",
                                   "A001_C002_0101AB RED/A001_C002_0101AB_001.R3D r3d 3 30",
                                   "clip_0001 RED/clip_0001.R3D r3d 1 10",
                                   "x x_001.r3d r3d 1 10",
                               }));
}

TEST(ClipDetector, EmptyVideosAreNoClipsButEmptyRawFilesAre) {
    EXPECT_EQ(describe(ClipDetector::detect(card({"a.mov", "b.braw", "c.crm"}, 0))),
              (std::vector<std::string>{"b b.braw braw 1 0", "c c.crm canonRaw 1 0"}));
    EXPECT_TRUE(ClipDetector::detect({}).empty());
}

TEST(ClipDetector, KnowsTheCamerasOwnProxiesByWholeFolderNames) {
    for (const char* path : {"Contents/PROXY/A001.mov", "XDROOT/Sub/A001.MP4", "proxy/x.mov"})
        EXPECT_TRUE(ClipDetector::isCameraProxy(path)) << path;
    for (const char* path : {"A_PROXY/A001.mov", "PROXY_01/a.mov", "DCIM/PROXY.MOV", "PROXY"})
        EXPECT_FALSE(ClipDetector::isCameraProxy(path)) << path;
    EXPECT_TRUE(ClipDetector::detect(card({"SUB/a.mp4"})).front().isCameraProxy);
}

} // namespace
} // namespace velmora
