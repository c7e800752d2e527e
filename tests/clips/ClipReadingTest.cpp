#include "clips/ContentCheck.h"
#include "clips/FramePositions.h"
#include "clips/SonyXML.h"
#include "records/Timecode.h"

#include <fmt/format.h>

namespace velmora {
namespace {

TEST(SonyXML, ReadsTheSidecarBesideTheClip) {
    const test::TempFolder folder;
    EXPECT_EQ(SonyXML::sidecarOf("/a.b/C0001.MXF"), "/a.b/C0001M01.XML");
    EXPECT_EQ(SonyXML::sidecarOf("/a.b/C0001"), "/a.b/C0001M01.XML");
    EXPECT_EQ(SonyXML::load(folder / "C0001.MP4"), SonyXML::Sidecar{});
    test::FileTree::write(folder / "C0001M01.XML", R"(<?xml version="1.0"?><NonRealTimeMeta xmlns="urn:schemas:x:2.20">
        <VideoFormat><VideoFrame captureFps="119.88p" formatFps="23.98p"/><VideoFrame captureFps="25p"/></VideoFormat>
        <AcquisitionRecord><Group><Item name="CaptureGammaEquation" value="s-log3-cine"/>
        <Item name="CaptureColorPrimaries" value="s-gamut3-cine"/><Item name="x"/></Group></AcquisitionRecord></NonRealTimeMeta>)");
    EXPECT_EQ(SonyXML::captureFrameRate(folder / "C0001.MP4"), "120000/1001");
    EXPECT_EQ(SonyXML::read(folder / "C0001.MXF"), (SonyXML::Picture{"s-log3-cine", "s-gamut3-cine"}));
    const std::vector<std::pair<const char*, std::optional<std::string>>> rates = {
        {"50i", "25"}, {"59.94p", "60000/1001"}, {"59.94i", "30000/1001"}, {"25", "25"}, {"p", {}}, {"-25p", {}},
        {"nanp", {}}};
    for (const auto& [text, rate] : rates)
        EXPECT_EQ(
            SonyXML::parse(fmt::format("<a:VideoFrame xmlns:a='u' captureFps='{}'", text) + "/>").captureFrameRate,
            rate)
            << text;
    // Broken off: what was there counts. No entity of its own is believed.
    EXPECT_EQ(SonyXML::parse("<m><VideoFrame captureFps='50p'/><Item").captureFrameRate, "50");
    EXPECT_EQ(SonyXML::parse("<!DOCTYPE m [<!ENTITY e '50p'>]><m><VideoFrame captureFps='&e;'/></m>"),
              SonyXML::Sidecar{});
}

struct Heard {
    const char* line;
    const char* kind; // null: no damage
};

TEST(ContentCheck, TellsDamageByItsWords) {
    for (const Heard& heard : std::vector<Heard>{
             {"/card/A.mov: corrupt decoded frame in stream 0", "decode"},
             {"[mjpeg @ 0x55] error count: 65", "decode"},
             {"[dnxhd @ 0x55] ac tex damaged 0, 64", "decode"},
             {"[mpeg2video @ 0x55] concealing 120 DC, 120 AC, 120 MV errors in P frame", "decode"},
             {"[hevc @ 0x55] The cu_qp_delta 1 is outside the valid range [-32, 31].", "decode"},
             {"[aac @ 0x55] channel element 1.0 is not allocated", "audio"},
             {"[AAC @ 0x55] Error while decoding", "audio"},
             {"[pcm_s16le @ 0x55] Invalid PCM packet, data has size 3", "audio"},
             {"[mp4 @ 0x55] Application provided invalid, non monotonically increasing dts to muxer", "timestamps"},
             {"[mjpeg @ 0x55] overread 8", "decode"},
             {"[dnxhd @ 0x55] ACT flag set, in violation of frame header.", "decode"},
             {"[h264 @ 0x55] overread 8", nullptr},
             {"Invalid DTS: 6144 PTS: 4608 in output stream 0:0, replacing by guess", nullptr},
             {"[libx264 @ 0x55] invalid DTS: PTS is less than DTS", nullptr},
             {"[mjpeg @ 0x55] header missing", nullptr},
             {"Guessed Channel Layout for Input Stream #0.1 : mono", nullptr},
             {"[mov,mp4,m4a,3gp,3g2,mj2 @ 0x55] st: 0 edit list: 1 Missing key frame", nullptr},
             {"", nullptr}}) {
        const auto kind = ContentCheck::kindOf(heard.line);
        EXPECT_EQ(kind.value_or("none"), heard.kind ? heard.kind : "none") << heard.line;
    }
}

ClipInfo clipOf(std::optional<std::int64_t> frames) {
    ClipInfo info;
    info.frameRate = "25";
    info.timecode = "10:00:00:00";
    info.frames = frames;
    return info;
}

TEST(ContentCheck, KeepsTheFirstDefectWithItsFrame) {
    ContentCheck check;
    for (const char* line : {"frame=24", "fps=25.0", "frame= 25", "frame=x", "frame=-1"})
        check.progressLine(line);
    check.errorLine("[mp4 @ 0x1] [warning] non monotonically " + std::string(400, 'x'));
    check.progressLine("frame=100");
    check.errorLine("corrupt decoded frame");
    const ClipContent content = check.verdict({}, clipOf(100));
    EXPECT_EQ(content.state, "warn");
    EXPECT_EQ(content.kind, "timestamps");
    EXPECT_EQ(content.frame, 25);
    EXPECT_EQ(content.timecode, "10:00:01:00");
    EXPECT_EQ(content.message, "non monotonically " + std::string(302, 'x'));
    EXPECT_EQ(content.framesDecoded, 100);
    check.reset();
    EXPECT_EQ(check.verdict({}, clipOf({})).message, "decoded 0 frames");
    EXPECT_EQ(check.verdict({}, clipOf({})).state, "ok");
}

TEST(ContentCheck, MissesFramesOnlyWhereASoundClipHasThem) {
    struct Case {
        std::int64_t decoded;
        std::optional<std::int64_t> frames;
        std::optional<double> duration;
        bool ok;
        const char* path = "";
    };
    for (const Case& c :
         {Case{100, {}, 8.0, false, "A.MXF"}, Case{193, {}, 8.0, true, "A.MXF"}, Case{0, {}, {}, true, "A.MXF"},
          Case{100, {}, 8.0, true, "A.mkv"}, Case{100, 200, 8.0, false}, Case{200, 200, 8.0, true},
          Case{201, 200, 8.0, true}, Case{193, 200, 8.0, true}, // undecodable frames of an open start
          Case{150, 200, 6.0, true},                            // hidden by an edit list
          Case{100, 200, {}, false}, Case{0, 1, 0.04, false}, Case{1, 1, 0.04, true}, Case{0, -5, {}, true},
          Case{100'000, 100'090, {}, true}}) {
        ContentCheck check;
        check.progressLine("frame=" + std::to_string(c.decoded));
        ClipInfo info = clipOf(c.frames);
        info.duration = c.duration;
        Clip clip;
        clip.path = c.path;
        const ClipContent content = check.verdict(clip, info);
        EXPECT_EQ(content.state, c.ok ? "ok" : "warn") << c.decoded << " of " << c.frames.value_or(0);
        EXPECT_EQ(content.kindText(), c.ok ? "content defect" : "clip ends early");
    }
}

TEST(FramePositions, LieInsideTheClipAndNameTheirFrame) {
    struct Case {
        std::optional<std::int64_t> frames;
        std::optional<double> duration;
        const char* rate;
        std::vector<std::int64_t> wanted;
    };
    for (const Case& c :
         std::vector<Case>{{1, 0.04, "25", {0}},
                           {2, 0.08, "25", {0, 1}},
                           {3, 0.12, "25", {0, 1, 2}},
                           {10, {}, "25", {1, 5, 8}},
                           {1000, 40, "25", {100, 500, 888}},
                           {1000, 30, "25", {100, 500, 663}}, // the file holds less than it counts
                           {{}, 40, "25", {100, 500, 888}},
                           {720, {}, "24000/1001", {72, 360, 636}},
                           {{}, {}, "25", {0}},
                           {100, 4, "0/0", {0}},
                           {-5, -1, "25", {0}},
                           {{}, 1e308, "25", {0}},
                           {std::numeric_limits<std::int64_t>::max(), {}, "1e5", {100000000, 500000000, 899950000}}}) {
        ClipInfo info;
        info.frames = c.frames;
        info.duration = c.duration;
        info.frameRate = c.rate;
        std::vector<std::int64_t> frames;
        for (const FramePosition& position : FramePositions::of(info)) {
            frames.push_back(position.frame);
            const double seek = FramePositions::seekSeconds(position, info);
            const double rate = Timecode::fps(c.rate).value_or(1);
            EXPECT_LE(seek, static_cast<double>(position.frame) / rate); // the frame itself is not passed over …
            EXPECT_TRUE(position.frame == 0 ||
                        seek > static_cast<double>(position.frame - 1) / rate); // … but its neighbour
        }
        EXPECT_EQ(frames, c.wanted);
        EXPECT_TRUE(std::ranges::is_sorted(frames));
    }
}

} // namespace
} // namespace velmora
