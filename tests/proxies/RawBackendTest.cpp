#include "platform/IO.h"
#include "proxies/ArriMeta.h"
#include "proxies/ArriRawBackend.h"
#include "proxies/BrawBackend.h"
#include "proxies/BrawLibrary.h"
#include "proxies/FrameCount.h"
#include "proxies/Intermediate.h"
#include "proxies/R3DBackend.h"
#include "proxies/RawDecoderError.h"
#include "proxies/RedMeta.h"

#include <atomic>
#include <chrono>
#include <fmt/format.h>
#include <future>
#include <nlohmann/json.hpp>

namespace velmora {
namespace {

using test::FileTree::read;
using testing::HasSubstr;

constexpr const char* brawJson =
    R"({"width":512,"height":270,"sourceWidth":4096,"sourceHeight":2160,"fps":23.976,"frames":48,)"
    R"("timecode":"01:02:03:04","camera":"Blackmagic URSA","gamma":"Blackmagic Design Film","gamut":"BMD Wide",)"
    R"("colorScienceGen":5,"sensorRate":60})";
constexpr const char* redText = "Camera Model:\tV-RAPTOR\nFrame Width: 8192 px\nFrame Height: 4320\n"
                                "Record Frame Rate: 119.88\nFPS: 23.976fps\nTotal Frames: 24\n"
                                "Abs TC: 10:00:00:00\nEdge TC: 00:00:00:00\n";
constexpr const char* arriJson =
    R"({"clip":[{"nativePictureEssenceDescriptor":[{"file":{"sampleRate":"24000/1001"},"storedSize":{"width":4608,)"
    R"("height":3164}}],"nativeSoundEssenceDescriptorList":[{"blockAlign":6},{"blockAlign":12},{"blockAlign":-1}]}],)"
    R"("sensorSampleRate":"48000","clipDuration":20,"cameraModel":"ALEXA 35","squeeze":"2/1","x":{"timecode":"bad"},)"
    R"("sceneColorEncodingTransferCurve":"LogC4","frameBasedMetadata":{"frames":[{"timecode":"09:08:07:06"}]}})";

// A maker's program that does as the shell lines say; "args" beside it keeps what it was asked.
struct Maker {
    test::TempFolder folder;
    ExternalTools tools;
    std::string clip = folder / "A \"1\".raw";
    std::string temporary = folder / "temp";

    explicit Maker(const std::string& script) {
        const std::string program = folder / "bin/tool";
        test::FileTree::write(program, fmt::format("#!/bin/sh\nprintf '%s\\n' \"$@\" > '{}'\nfor a; do prev=$out_; "
                                                   "out_=$a; [ \"$prev\" = --output ] && out=$a; "
                                                   "[ \"$prev\" = --outDir ] && dir=$a; done; :\n{}\n",
                                                   folder / "args", script));
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        test::FileTree::write(folder / "bin/libBlackmagicRawAPI.so", "");
        std::filesystem::create_directories(temporary);
        tools.redline = tools.artCmd = tools.brawDecoder = program;
    }
    std::string args() const { return read(folder / "args"); }
    FrameSource source(const RawBackend& backend, const ClipInfo& info, const ProxySettings& settings = {},
                       std::optional<double> frame = {}, const IsCancelled& isCancelled = {},
                       const std::function<void(double)>& progress = {}) const {
        return backend.source({{}, clip, info, settings, {}, tools, temporary, frame, isCancelled, progress});
    }
    bool temporaryIsEmpty() const { return std::filesystem::is_empty(temporary); }
};

std::string answer(const std::string& file) { return "cat <<'END'\n" + file + "\nEND"; }
std::string into(const std::string& file) { return "cat > \"$out\" <<'END'\n" + file + "\nEND"; }

// What the record of a clip says, as text; or how the probe failed.
std::string probed(const RawBackend& backend, const Maker& maker, const IsCancelled& isCancelled = {}) try {
    const ClipInfo info = backend.probe(maker.clip, maker.tools, isCancelled);
    const auto text = [](const auto& value) { return value ? fmt::format("{}", *value) : "-"; };
    return fmt::format("{} {} {} {:.2f}s {} {} cap {} {} {}ch", info.resolutionLabel(), text(info.frameRate),
                       text(info.frames), info.duration.value_or(-1), text(info.timecode), text(info.camera),
                       text(info.captureFrameRate), text(info.logEncoding ? info.logEncoding : info.gamma),
                       info.audioChannels);
} catch (const ToolError& error) {
    return error.message();
}

TEST(RawBackends, ReadClipsAsTheToolsTellOfThemAndSayHowAToolHasFailed) {
    const BRAWBackend braw(30), hastyBraw(0.5);
    const R3DBackend red({30, 30}), hastyRed({0.5, 0.5});
    const ARRIRAWBackend arri({30, 30}), hastyArri({0.5, 0.5});
    const auto replaced = [](std::string text, const std::string& what, const std::string& with) {
        return text.replace(text.find(what), what.size(), with);
    };
    const std::string flood = "while :; do echo 0123456789012345678901234567890123456789; done";
    struct Case {
        const RawBackend& backend;
        std::string script;
        std::string expected; // beginning
    };
    const std::vector<Case> cases{
        {braw, answer(brawJson),
         "4096×2160 24000/1001 48 2.00s 01:02:03:04 Blackmagic URSA cap 60 Blackmagic Design Film 0ch"},
        {braw, answer(replaced(replaced(brawJson, "01:02:03:04", "?"), ":60", ":1e300")),
         "4096×2160 24000/1001 48 2.00s - Blackmagic URSA cap - Blackmagic"},
        {braw, "echo '{'", "unreadable metadata"},
        {braw, "", "unreadable metadata"},
        {braw, answer(replaced(brawJson, "4096", "1e99")), "unreadable metadata: the value of \"sourceWidth\""},
        {braw, answer(replaced(brawJson, "23.976", "0")), "unreadable metadata: the value of \"fps\""},
        {braw, answer(std::string(40, '[')), "unreadable metadata"},
        {hastyBraw, "sleep 9", "no response within 0 s — stopped"},
        {braw, flood, "more output than expected — stopped"},
        {braw, "echo 'library /x/api.so: wrong version' >&2; exit 3", "Blackmagic RAW: cannot use the library /"},
        {braw, "echo 'cannot open /my library/A.braw' >&2; exit 1",
         "Blackmagic RAW: cannot open the clip — it is damaged, or the library /"},
        {braw, "echo >&2; exit 9", "Blackmagic RAW: cannot open the clip — it is damaged, or the library /"},
        {braw, "kill -11 $$", "Blackmagic RAW: cannot open the clip — it is damaged"},
        {red, answer(redText), "8192×4320 24000/1001 24 1.00s 10:00:00:00 V-RAPTOR cap 120000/1001 - 0ch"},
        {red,
         answer("width: 99999999999999999999\nheight: -4\nframes: 10\nframe count: x\nfps: 1e999\ntimebase: 25/1\n"
                "Timecode: 1:2\nCamera: A\n"),
         " 25 10 0.40s - A cap - - 0ch"},
        {red, "echo hello", "unreadable metadata"},
        {red, "echo no licence >&2; exit 2", "no licence\n"},
        {hastyRed, "sleep 9", "no response within 0 s — stopped"},
        {red, flood, "more output than expected — stopped"},
        {arri, into(arriJson), "4608×3164 24000/1001 20 0.83s 09:08:07:06 ALEXA 35 cap 48 LogC4 6ch"},
        {arri, into(R"({"displayRect":{"width":"100","height":50},"clipDuration":1e40,"squeeze":1e9,"cameraModel":7})"),
         "100×50 - - -1.00s - - cap - - 0ch"},
        {arri, into("[]"), "unreadable metadata"},
        {arri, into("{\"a\":" + std::string(50, '[')), "unreadable metadata"},
        {arri, "", "no output file"},
        {arri, ": > \"$out\"", "no output file"},
        {arri, "yes > \"$out\"", "more output than expected — stopped"},
        {arri, "echo '[12:00] [info] hello'; echo '[12:01] [error] no such clip' >&2; exit 5", "no such clip"},
        {arri, "echo usage; exit 64", "usage\n"},
        {hastyArri, flood, "no response within 0 s — stopped"},
    };
    for (const auto& [backend, script, expected] : cases) {
        const Maker maker(script);
        EXPECT_THAT(probed(backend, maker), testing::StartsWith(expected)) << script.substr(0, 200);
        EXPECT_THAT(maker.args(), HasSubstr(maker.clip));
    }
    for (const RawBackend* each : {static_cast<const RawBackend*>(&braw), static_cast<const RawBackend*>(&red),
                                   static_cast<const RawBackend*>(&arri)}) {
        EXPECT_EQ(probed(*each, Maker("sleep 9"), [] { return true; }), "cancelled");
        Maker none("");
        none.tools = {};
        EXPECT_FALSE(each->isAvailable(none.tools));
        EXPECT_EQ(probed(*each, none), each->missingHint());
    }
    const Maker bare("");
    std::filesystem::remove(bare.folder / "bin/libBlackmagicRawAPI.so");
    EXPECT_FALSE(braw.isAvailable(bare.tools));
}

ClipInfo clipOf(std::int64_t width, std::int64_t height, std::int64_t frames) {
    ClipInfo info;
    info.width = width;
    info.height = height;
    info.frames = frames;
    info.frameRate = "24000/1001";
    return info;
}

TEST(BRAWBackend, PipesTheSmallestFramesThatHaveTheLines) {
    const Maker maker("[ -n \"$LD_LIBRARY_PATH\" ] || exit 1\n" + answer(brawJson));
    const BRAWBackend backend;
    ProxySettings settings;
    settings.height = 540;
    const FrameSource source = maker.source(backend, clipOf(4096, 2160, 48), settings);
    EXPECT_EQ(maker.args(), "--info\n--scale\nquarter\n" + maker.clip + "\n");
    EXPECT_EQ(fmt::format("{}", fmt::join(source.inputArgs, " ")),
              "-f rawvideo -pixel_format rgb48le -video_size 512x270 -framerate 24000/1001 -i pipe:0");
    EXPECT_THAT(source.feeder->arguments, testing::ElementsAre("--scale", "quarter", maker.clip));
    EXPECT_TRUE(source.fullRange && !source.audioFromInput && !source.alreadyCropped && source.cleanup.empty());
    EXPECT_THAT(source.explainFeederError(ToolError("braw-decode", 4, "a\nframe 7: bad")).message(),
                "Blackmagic RAW: could not decode a frame of the clip (frame 7: bad)");
    EXPECT_THAT(source.explainFeederError(ToolError("braw-decode", 139, "\n")).message(),
                "Blackmagic RAW: could not decode a frame of the clip (exit 139)");

    const FrameSource frame = maker.source(backend, clipOf(4096, 2160, 48), settings, 1.0);
    EXPECT_THAT(frame.feeder->arguments,
                testing::ElementsAre("--scale", "eighth", "--start", "23", "--count", "1", maker.clip));

    settings.frameAspect = 2.0; // 2048 lines of the picture are inside, so a quarter has too few of them
    settings.frameScale = 0.9;
    maker.source(backend, clipOf(4096, 2160, 48), settings);
    EXPECT_THAT(maker.args(), HasSubstr("--scale\nhalf\n"));
    EXPECT_EQ(BRAWBackend::scale(1080, 1080), "");
    EXPECT_EQ(BRAWBackend::startFrame(1e300, 25, 10), 9);
    EXPECT_EQ(BRAWBackend::startFrame(-1, 25, 10), 0);
    EXPECT_EQ(BRAWBackend::startFrame(NAN, 25, 0), 0);
    EXPECT_EQ(BRAWBackend::startFrame(1001.0 * 7 / 24000, 24000.0 / 1001, 10), 7);
}

TEST(R3DBackend, WritesTheLogPictureOfTheSmallestSizeAndHandsItOver) {
    const Maker maker(
        "echo old > \"$dir/a\"; touch -d '2020-01-01' \"$dir/a\"; sleep 0.4; echo picture > \"$dir/b.mov\"");
    std::vector<double> bar;
    const FrameSource source =
        maker.source(R3DBackend(), clipOf(8192, 4320, 1), {}, {}, {}, [&](double done) { bar.push_back(done); });
    EXPECT_THAT(maker.args(), HasSubstr("--res\n4\n"));
    ASSERT_EQ(source.cleanup.size(), 1U);
    EXPECT_EQ(read(source.cleanup[0] + "/b.mov"), "picture\n");
    EXPECT_THAT(source.inputArgs, testing::ElementsAre("-i", "file:" + source.cleanup[0] + "/b.mov"));
    EXPECT_TRUE(source.audioFromInput && !source.feeder);
    EXPECT_FALSE(bar.empty());
    EXPECT_EQ(R3DBackend::resolution(4320, 4320), 1);
    EXPECT_EQ(R3DBackend::resolution(4320, 1), 16);
    EXPECT_EQ(Intermediate::progressOf(50, 100), 0.4);
    EXPECT_EQ(Intermediate::progressOf(1000, 100), 1);
    EXPECT_EQ(Intermediate::progressOf(1, 0), 0);
}

TEST(Intermediate, WaitsForRoomThatAnotherClipHasSetAside) {
    const test::TempFolder folder;
    const std::string ended = folder / "ended";
    std::optional<Intermediate> first(std::in_place, folder.path());
    const auto run = [&](const Intermediate& place, const std::string& script, double share, const IsCancelled& stop) {
        Intermediate::Job job{"/bin/sh", {"-c", script}};
        job.expectedBytes = static_cast<std::int64_t>(share * static_cast<double>(IO::capacity(folder.path()).free));
        job.isCancelled = stop;
        return place.run(job).status;
    };
    std::atomic<bool> begun{false};
    auto other = std::async(std::launch::async, [&] {
        return run(*first, "sleep 0.4; echo > " + ended, 0.6, [&] { return (begun = true) && false; });
    });
    while (!std::filesystem::exists(ended) && !begun)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const Intermediate second(folder.path());
    EXPECT_EQ(run(second, "test -e " + ended, 0.2, {}), 1) << "there is room for that beside the other";
    EXPECT_EQ(test::refusal<ToolError>([&] { run(second, "", 1.2, [&] { return std::filesystem::exists(ended); }); }),
              "sh failed (exit -1): cancelled");
    EXPECT_EQ(other.get(), 0);
    first.reset();
    EXPECT_THAT(test::refusal<ToolError>([&] { run(second, "", 1.2, {}); }), HasSubstr("no room to decode the clip"));
    EXPECT_EQ(run(second, "exit 0", 0.6, {}), 0);
}

TEST(ARRIRAWBackend, TellsTheToolTheCutAndTheSizeOfThePictureAsItIsSeen) {
    const Maker maker("echo picture > \"$out\"");
    ProxySettings settings;
    settings.height = 540;
    ClipInfo info = clipOf(2000, 1000, 4);
    const auto parameters = [&](bool cropped) {
        const FrameSource source = maker.source(ARRIRAWBackend(), info, settings);
        EXPECT_EQ(source.alreadyCropped, cropped);
        EXPECT_THAT(maker.args(), HasSubstr("--target-colorspace\nAWG3/D65/LogC3\n--parameters\n" +
                                            source.cleanup.at(0) + "/parameters.json\n"));
        EXPECT_EQ(source.inputArgs.at(1), "file:" + source.cleanup[0] + "/intermediate.mxf");
        return nlohmann::json::parse(read(source.cleanup[0] + "/parameters.json")).dump();
    };
    EXPECT_EQ(parameters(false), R"({"outputScaling":{"targetHeight":540,"targetWidth":1080}})");
    info.squeeze = 2; // seen as 4000 by 1000
    settings.frameAspect = 2;
    EXPECT_EQ(parameters(true),
              R"({"inputCrop":{"displayHeightOverride":1000,"displayWidthOverride":1000,"displayXOffsetOverride":500,)"
              R"("displayYOffsetOverride":0},"outputScaling":{"targetHeight":540,"targetWidth":1080}})");
    settings = {};
    EXPECT_EQ(parameters(false), "{}"); // smaller than the proxy: ffmpeg enlarges it
}

// However a tool ends, nothing of it stays: no file, no process.
TEST(RawBackends, LeaveNothingBehindWhenTheIntermediateFails) {
    const R3DBackend red({1, 0.7});
    const ARRIRAWBackend arri({1, 0.7});
    const std::string half = "echo x > \"${out:-$dir/x.mov}\"; ";
    struct Case {
        const RawBackend& backend;
        std::string script;
        std::string expected;
        std::int64_t frames = 1;
        bool cancel = false;
    };
    const std::vector<Case> cases{
        {red, "", "no output in /"},
        {red, ": > \"$dir/empty.mov\"", "no output in /"},
        {red, half + "echo broke off; exit 7", "broke off"},
        {red, half + "sleep 60", "no response within 1 s — stopped"},
        {red, half + "trap '' TERM; while :; do sleep 1; done", "cancelled", 1, true},
        {red, "", "no room to decode the clip in /", 1'000'000'000},
        {arri, "", "no output file"},
        {arri, half + "echo '[t] [critical] disk full'; exit 1", "disk full"},
        {arri, half + "sleep 60", "no response within 1 s — stopped"},
        {arri, half + "sleep 60", "cancelled", 1, true},
    };
    for (const auto& [backend, script, expected, frames, cancel] : cases) {
        const Maker maker(script + "\n");
        std::string message;
        const auto start = std::chrono::steady_clock::now();
        const auto cancelled = [&, wanted = cancel] {
            return wanted && std::chrono::steady_clock::now() - start > std::chrono::milliseconds(300);
        };
        try {
            maker.source(backend, clipOf(4096, 2160, frames), {}, {}, cancelled);
        } catch (const ToolError& error) {
            message = error.message();
        }
        EXPECT_THAT(message, testing::StartsWith(expected)) << script;
        EXPECT_TRUE(maker.temporaryIsEmpty()) << script;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
    for (const RawBackend* each : {static_cast<const RawBackend*>(&red), static_cast<const RawBackend*>(&arri)})
        try {
            Maker("").source(*each, clipOf(1920, 1080, 9), {}, 0.5);
            ADD_FAILURE();
        } catch (const RawDecoderError& error) {
            EXPECT_EQ(error.note(), "thumbnail from proxy");
        }
}

// A tool that stopped in the middle of the clip and calls it success.
TEST(RawBackends, RefuseAnIntermediateThatIsShorterThanTheClip) {
    Maker maker("echo picture > \"${out:-$dir/x.mov}\"");
    const std::string probe = maker.folder / "ffprobe";
    test::FileTree::write(probe,
                          "#!/bin/sh\necho '{\"streams\":[{\"duration_ts\":30030,\"time_base\":\"1/24000\"}]}'\n");
    std::filesystem::permissions(probe, std::filesystem::perms::owner_all);
    maker.tools.ffprobe = probe;
    for (const auto& backend : RawBackends::all())
        if (backend->format() == ClipFormat::r3d || backend->format() == ClipFormat::arriraw) {
            EXPECT_NO_THROW(maker.source(*backend, clipOf(64, 48, 31)));
            EXPECT_THAT(test::refusal<ToolError>([&] { maker.source(*backend, clipOf(64, 48, 32)); }),
                        HasSubstr("decoded 30 of 32 frames"));
        }
    for (const char* unknown :
         {"", "[]", R"({"streams":[{"duration_ts":1e300,"time_base":"1/0"}]})", R"({"format":{"duration":"-1"}})"})
        EXPECT_EQ(FrameCount::parse(unknown, 25), std::nullopt) << unknown;
    EXPECT_EQ(FrameCount::parse(R"({"streams":[{}],"format":{"duration":"2.0"}})", 25), 50);
}

} // namespace
} // namespace velmora
