#include "base/ProgressWatch.h"
#include "base/Text.h"
#include "proxies/EncoderArgs.h"
#include "proxies/FilterGraph.h"
#include "proxies/FrameLines.h"
#include "proxies/LighterSource.h"
#include "proxies/MovFile.h"
#include "proxies/ProxyCopy.h"
#include "proxies/ProxyPaths.h"
#include "proxies/ProxyPreflight.h"

#include <fmt/format.h>

namespace velmora {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

ProxySettings lines(std::int64_t height, ProxyCodec codec = ProxyCodec::h264) {
    ProxySettings settings;
    settings.height = height;
    settings.codec = codec;
    return settings;
}

TEST(FilterGraph, PutsTheFiltersInOrder) {
    auto framed = lines(720, ProxyCodec::prores422);
    framed.frameAspect = 2.39;
    framed.frameScale = 0.05; // nobody means that
    const std::string tail = "setparams=color_primaries=bt709:color_trc=bt709";
    const std::string map = "'clip((val*1023/65535-64)/876*65535,0,65535)'";
    const std::string crop = "crop=w='trunc(min(iw*1,ih*1*2.39)/2)*2':h='trunc(min(iw*1/2.39,ih*1)/2)*2',";
    const std::string scaled = "scale=2*round(720*dar/2):720:flags=bicubic,setsar=1,";
    const std::string range = "scale=out_color_matrix=bt709:out_range=tv,";
    const struct {
        ProxySettings settings;
        FilterGraph::Video video;
        std::string chain;
    } cases[] = {
        {lines(720), {}, scaled + range + "format=yuv420p," + tail},
        {framed, {}, crop + scaled + range + "format=yuv422p10le," + tail},
        {framed,
         {.alreadyCropped = true, .lut = "lut-1.cube", .needsPreMap = true},
         scaled + fmt::format("lutrgb=r={0}:g={0}:b={0},", map) +
             "format=rgb48le,lut3d=file=lut-1.cube:interp=tetrahedral," + range + "format=yuv422p10le," + tail},
        {lines(720),
         {.burnIn = FilterGraph::BurnIn{.timecode = "01:00:00:00"}, .end = "format=nv12,hwupload"},
         scaled + range + "format=yuv420p,drawbox=x=0:y=ih-42:w=iw:h=42:color=black@0.55:t=fill," + tail +
             ",format=nv12,hwupload"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(FilterGraph::video(c.settings, c.video), c.chain);
    ClipInfo full;
    full.colorRange = "pc";
    EXPECT_TRUE(FilterGraph::needsPreMap(full, false, true));
    EXPECT_TRUE(FilterGraph::needsPreMap({}, true, true));
    EXPECT_FALSE(FilterGraph::needsPreMap(full, true, false));
    EXPECT_FALSE(FilterGraph::needsPreMap({}, false, true));
}

TEST(FilterGraph, SizesTheBurnInByTheHeight) {
    const FilterGraph::BurnIn burn{"font.ttf", "label-1.txt", 12, {}, "10:00:00;00", "30000/1001"};
    EXPECT_EQ(
        FilterGraph::burnIn(burn, 1080),
        "drawbox=x=0:y=ih-64:w=iw:h=64:color=black@0.55:t=fill,"
        "drawtext=fontfile=font.ttf:fontcolor=white:fontsize=32:y=h-20-ascent:textfile=label-1.txt:expansion=none:x=21,"
        "drawtext=fontfile=font.ttf:fontcolor=white:fontsize=32:y=h-20-ascent:timecode='10\\:00\\:00;00':"
        "rate=30000/1001:x=w-tw-21");
    EXPECT_THAT(FilterGraph::burnIn(burn, 360), AllOf(HasSubstr("fontsize=12"), HasSubstr("x=w-tw-8")));
    auto odd = burn;
    odd.timecode = "none";
    odd.labelLetters = 60; // does not fit beside a timecode in an upright picture
    odd.shortFile = "label-2.txt";
    EXPECT_THAT(FilterGraph::burnIn(odd, 1080), AllOf(HasSubstr("timecode='00\\:00\\:00\\:00'"),
                                                      HasSubstr("label-1.txt:expansion=none:x=21:alpha='gte(w,1449)'"),
                                                      HasSubstr("label-2.txt:expansion=none:x=21:alpha='lt(w,1449)'")));
    for (const auto& [rate, counted] : {std::pair{"1/4", ":rate=1:"}, {"1/2", ":rate=1/2:"}, {"0/0", ":rate=25:"}}) {
        odd.rate = rate;
        EXPECT_THAT(FilterGraph::burnIn(odd, 1080), HasSubstr(counted));
    }
    EXPECT_EQ(FilterGraph::safeLetters(1080), 16U);
    const struct {
        std::string name;
        std::size_t most;
        std::string label;
    } labels[] = {{"A001C001", 8, "A001C001"},      {"A001C001", 7, "A00…001"},    {"ÜÜÜÜÜÜÜÜ", 4, "ÜÜ…Ü"},
                  {"50%{x}'\\:", 64, "50%{x}'\\:"}, {"a\x1B[1m", 64, "a\\x1B[1m"}, {"\xFF", 64, "\\xFF"}};
    for (const auto& c : labels)
        EXPECT_EQ(FilterGraph::label(c.name, c.most), c.label);
}

TEST(FrameLines, AreTheLargestRectangleInTheMiddle) {
    using Box = std::array<std::int64_t, 4>;
    auto settings = lines(1080);
    EXPECT_EQ(FrameLines::crop(settings, 1920, 1080), std::nullopt);
    EXPECT_EQ(FrameLines::label(settings), std::nullopt);
    settings.frameAspect = 2.0;
    EXPECT_EQ(FrameLines::crop(settings, 1920, 1080), (Box{0, 60, 1920, 960}));
    EXPECT_EQ(FrameLines::crop(settings, 0, 1080), std::nullopt);
    settings.frameScale = 0;
    EXPECT_EQ(FrameLines::crop(settings, 1080, 1920), (Box{0, 690, 1080, 540}));
    settings.frameScale = 0.9;
    EXPECT_EQ(FrameLines::crop(settings, 1920, 1080), (Box{96, 108, 1728, 864}));
    EXPECT_EQ(FrameLines::label(settings), "2.00 90 %");
}

TEST(EncoderArgs, KeepWhatEditorsNeed) {
    const auto text = [](ProxyCodec codec, double fps) {
        return join(EncoderArgs::video(EncoderArgs::candidates(codec).back(), codec, 10, fps), " ");
    };
    const std::string tags = " -color_primaries bt709 -color_trc bt709 -colorspace bt709 -color_range tv";
    EXPECT_EQ(
        text(ProxyCodec::h264, 23.976),
        "-c:v libx264 -preset veryfast -profile:v high -bf 2 -g 24 -flags +cgop -b:v 10M -maxrate 15M -bufsize 20M" +
            tags);
    EXPECT_THAT(text(ProxyCodec::hevc, 59.94),
                AllOf(HasSubstr("-tag:v hvc1"), HasSubstr("-g 60"), HasSubstr("open-gop=0")));
    EXPECT_EQ(text(ProxyCodec::proresProxy, 25), "-c:v prores_ks -profile:v 0 -vendor apl0" + tags);
    EXPECT_THAT(EncoderArgs::audio({2, 1, 16, 12, 0}),
                ElementsAre("-c:a", "aac", "-b:a:0", "128k", "-b:a:1", "128k", "-b:a:2", "512k", "-c:a:3", "pcm_s16le",
                            "-b:a:4", "128k"));
}

TEST(ProxyPaths, AreThoseOfTheClips) {
    const auto clip = [](std::string name, std::string path) {
        Clip c;
        c.name = std::move(name);
        c.path = std::move(path);
        return c;
    };
    const Clip deep = clip("A001", "DCIM/100/A001.MXF");
    EXPECT_EQ(ProxyPaths::of(deep, ProxyTree::mirror), "DCIM/100/A001.mov");
    EXPECT_EQ(ProxyPaths::of(deep, ProxyTree::flat), "A001.mov");
    EXPECT_EQ(ProxyPaths::of(clip("", ""), ProxyTree::mirror), "clip.mov");
    EXPECT_EQ(ProxyPaths::folder("/d/card") + " " + ProxyPaths::relative("A001.mov"), "/d/card/_PROXY _PROXY/A001.mov");
    EXPECT_EQ(ProxyPaths::part("/d/A.001.mov"), "/d/A.001.part.mov");

    const std::string longName = ProxyPaths::of(clip(std::string(251, 'x'), "x"), ProxyTree::flat);
    EXPECT_EQ(ProxyPaths::part(longName).size(), 255U);
    EXPECT_EQ(ProxyPaths::part(ProxyPaths::numbered(longName, 12)).size(), 255U);

    std::set<std::string> used;
    const auto pick = [&](const std::string& name) {
        return ProxyPaths::pick(name, used, [](const std::string& file) { return toLower(file) != "b_2.mov"; });
    };
    EXPECT_EQ(pick("d/b.mov"), "d/b.mov");
    EXPECT_EQ(pick("b.mov"), "b.mov");
    EXPECT_EQ(pick("B.mov"), "B_3.mov"); // some disks take it for b.mov, and b_2.mov is there already
    EXPECT_EQ(pick("d/b.mov"), "d/b_2.mov");

    ClipEntry entry;
    entry.clip = deep;
    EXPECT_EQ(ProxyPaths::detect({entry}), ProxyTree::mirror);
    entry.proxyPath = "_PROXY/A001.mov";
    EXPECT_EQ(ProxyPaths::detect({entry}), ProxyTree::flat);
    entry.proxyPath = "_PROXY/DCIM/100/A001.mov";
    EXPECT_EQ(ProxyPaths::detect({entry}), ProxyTree::mirror);
}

TEST(ProxyCopy, NeverReplacesUnasked) {
    const test::TempFolder folder;
    const std::string from = folder / "from.mov";
    const std::string to = folder / "new/to.mov";
    test::FileTree::write(from, "proxy");
    ProxyCopy::copyFile(from, to, false);
    EXPECT_EQ(test::FileTree::read(to), "proxy");
    test::FileTree::write(to, "other");
    EXPECT_THROW(ProxyCopy::copyFile(from, to, false), ProxyCopy::Taken);
    EXPECT_THROW(ProxyCopy::renameNoReplace(from, to), ProxyCopy::Taken);
    EXPECT_EQ(test::FileTree::read(to), "other");
    ProxyCopy::copyFile(from, to, true);
    EXPECT_EQ(test::FileTree::read(to), "proxy");
    EXPECT_THROW(ProxyCopy::copyFile(from, folder / "c.mov", false, [] { return true; }), Cancelled);
    EXPECT_FALSE(std::filesystem::exists(folder / "c.mov.part"));

    const auto extra = [&](const std::string& into, int attempts) {
        const auto placed = ProxyCopy::toExtraFolder(into, from, "2026-03-14", "A001", "to.mov", attempts);
        return placed.path.value_or(placed.error.value_or(""));
    };
    EXPECT_EQ(extra(folder / "gone", 3), "folder is not available");
    EXPECT_EQ(extra(folder / "new", 3), folder / "new/2026-03-14/A001/to.mov");
    EXPECT_EQ(extra(folder / "new", 3), folder / "new/2026-03-14/A001/to_2.mov");
    EXPECT_EQ(extra(folder / "new", 2), "no free name (2 tries)");
}

TEST(LighterSource, SpeaksOnlyWhereNothingWouldChange) {
    ClipInfo info;
    info.width = 1920;
    info.height = 1080;
    info.frameRate = "25";
    info.videoBitrate = 6'000'000;
    auto settings = lines(1080);
    settings.burnFilename = settings.burnTimecode = false;
    const LutUse off = LutUse::off("");
    EXPECT_EQ(LighterSource::note(info, settings, off),
              "no proxy — the original is lighter (1920×1080, 6.0 Mbit/s against 11.0 Mbit/s)");
    const auto differently = [&](const auto& change) {
        auto i = info;
        auto s = settings;
        auto lut = off;
        change(i, s, lut);
        return LighterSource::note(i, s, lut).has_value();
    };
    EXPECT_FALSE(differently([](auto& i, auto&, auto&) { i.videoBitrate = 12'000'000; }));
    EXPECT_FALSE(differently([](auto& i, auto&, auto&) { i.videoBitrate.reset(); }));
    EXPECT_FALSE(differently([](auto& i, auto&, auto&) { i.height = 2160, i.width = 3840; }));
    EXPECT_FALSE(differently([](auto&, auto& s, auto&) { s.burnTimecode = true; }));
    EXPECT_FALSE(differently([](auto&, auto& s, auto&) { s.frameScale = 0.9; }));
    EXPECT_FALSE(differently([](auto&, auto& s, auto&) { s.skipLighterSources = false; }));
    EXPECT_FALSE(differently([](auto&, auto&, auto& lut) { lut.source = "builtin"; }));
    EXPECT_TRUE(differently([](auto&, auto& s, auto&) { s.codec = ProxyCodec::proresProxy; }));
}

TEST(ProxyPreflight, NamesWhatIsMissing) {
    ProxySettings settings;
    settings.enabled = true;
    settings.lutPath = "/gone.cube";
    settings.extraFolder = "/nowhere";
    EXPECT_EQ(ProxyPreflight::blocking(settings, true, false),
              "LUT not found: /gone.cube — choose another one or remove it.");
    EXPECT_EQ(ProxyPreflight::blocking(settings, true, true), std::nullopt);
    EXPECT_EQ(ProxyPreflight::extraFolderBlocking(settings), "Folder for proxies is not available: /nowhere");
    settings.lutMode = LutMode::automatic;
    settings.extraFolder = "/usr";
    EXPECT_EQ(ProxyPreflight::blocking(settings, true, false), std::nullopt);
    settings.lutFallback = "/own.CUBE";
    EXPECT_EQ(ProxyPreflight::lutInUse(settings, true), "/own.CUBE");
    EXPECT_EQ(ProxyPreflight::extraFolderBlocking(settings), std::nullopt);
    EXPECT_EQ(ProxyPreflight::spaceBlocking("/usr", "usr", 0), std::nullopt);
    EXPECT_THAT(*ProxyPreflight::spaceBlocking("/usr", "usr", std::int64_t{1} << 60),
                HasSubstr("Proxies were not rendered: not enough space on usr"));
}

TEST(ProgressWatch, KnowsSinceWhenNothingMoves) {
    const auto start = ProgressWatch::Clock::now();
    const auto at = [&](int seconds) { return start + std::chrono::seconds(seconds); };
    ProgressWatch watch(start);
    const struct {
        const char* line;
        bool advanced;
    } steps[] = {{"frame=0", false},           {"out_time_us=N/A", false},  {"frame=3", true},
                 {"frame=3", false},           {"out_time_us=40000", true}, {"out_time_us=-9", false},
                 {"progress=continue", false}, {"frame=2", false},          {"progress=end", true}};
    int second = 0;
    int last = 0;
    for (const auto& step : steps) {
        EXPECT_EQ(watch.take(step.line, at(++second)), step.advanced) << step.line;
        last = step.advanced ? second : last;
        EXPECT_DOUBLE_EQ(watch.secondsIdle(at(second)), second - last);
        EXPECT_EQ(watch.advancedOnce(), last > 0);
    }
    EXPECT_EQ(watch.frame(), 3);
    EXPECT_DOUBLE_EQ(watch.outTime(), 0.04);
}

TEST(MovFile, IsWholeOrSaysWhatIsNot) {
    const test::TempFolder folder;
    const auto box = [](const std::string& kind, std::size_t size, std::size_t stated = 0) {
        const auto n = static_cast<std::uint32_t>(stated == 0 ? size : stated);
        std::string bytes;
        for (const unsigned shift : {24U, 16U, 8U, 0U})
            bytes += static_cast<char>(n >> shift & 0xFFU);
        return bytes + kind + std::string(size - 8, 'x');
    };
    const std::string wide = std::string("\0\0\0\1mdat\0\0\0\0\0\0\0\x12xx", 18);
    const struct {
        std::string bytes;
        std::optional<std::string> problem;
    } cases[] = {
        {box("ftyp", 20) + box("moov", 30) + box("mdat", 9), std::nullopt},
        {box("moov", 30) + wide, std::nullopt},
        {box("ftyp", 20) + box("mdat", 9) + box("moov", 30), "its index does not stand in front"},
        {box("moov", 30) + box("mdat", 9, 12), "its box \"mdat\" is cut short"},
        {box("moov", 30) + "mdat", "its last box is cut short"},
        {box("moov", 30), "it has no index or no media"},
        {"", "it has no index or no media"},
        {std::string(20, '\0'), std::string("its box \"") + std::string(4, '\0') + "\" is cut short"},
    };
    for (const auto& c : cases) {
        test::FileTree::write(folder / "f.mov", c.bytes);
        EXPECT_EQ(MovFile::problem(folder / "f.mov"), c.problem);
    }
    EXPECT_EQ(MovFile::problem(folder / "gone"), "it cannot be read");

    test::FileTree::write(folder / "f.mov", cases[0].bytes + box("uuid", 40));
    EXPECT_EQ(MovFile::appended(folder / "f.mov"), std::nullopt);
    MovFile::append(folder / "f.mov", "what is to be kept");
    EXPECT_EQ(MovFile::appended(folder / "f.mov"), "what is to be kept");
    EXPECT_EQ(MovFile::problem(folder / "f.mov"), std::nullopt);
    EXPECT_THROW(MovFile::append(folder / "gone", ""), IOError);
}

} // namespace
} // namespace velmora
