#include "disks/SpaceEstimator.h"

#include "records/ClipInfo.h"

#include <cmath>

namespace velmora {
namespace {

constexpr std::int64_t MB = 1'000'000;

Clip clip(ClipFormat format, const std::string& path, std::int64_t bytes) {
    return {.name = path, .path = path, .format = format, .segments = {path}, .bytes = bytes, .isCameraProxy = false};
}

TEST(SpaceEstimator, KnowsTheRateOfAProxy) {
    struct Case {
        ProxyCodec codec;
        std::int64_t height;
        SpaceEstimator::AudioStreams audio;
        double fps;
        double expected; // without the 10 % for what is not picture or sound
    };
    const std::vector<std::int64_t> silent;
    const std::vector<Case> cases{
        {ProxyCodec::h264, 1080, silent, 25, 10},
        {ProxyCodec::hevc, 2160, silent, 60, 10}, // held to its bit rate
        {ProxyCodec::prores422HQ, 1080, silent, 30, 220},
        {ProxyCodec::prores422, 1080, silent, 30, 147},
        {ProxyCodec::proresLT, 1080, silent, 24, 102}, // slower footage is not counted smaller
        {ProxyCodec::proresProxy, 540, silent, 30, 11.25},
        {ProxyCodec::prores422HQ, 2160, silent, 60, 1760},
        {ProxyCodec::h264, 1080, std::vector<std::int64_t>{2}, 25, 10.128},
        {ProxyCodec::h264, 1080, std::vector<std::int64_t>{1, 16, 4}, 25, 10.896}, // 128, 512 and 256 kbit/s
        {ProxyCodec::h264, 1080, std::nullopt, 25, 10.768},
    };
    for (const Case& c : cases)
        EXPECT_NEAR(SpaceEstimator::proxyMbps(c.codec, c.height, c.audio, 10, c.fps), c.expected * 1.1, 1e-6)
            << name(c.codec) << " " << c.height << " " << c.expected;
}

TEST(SpaceEstimator, TellsTheLengthOfAClipFromItsBytesWhenItMust) {
    struct Case {
        ClipFormat format;
        std::string path;
        std::int64_t bytes;
        std::optional<double> duration;
        double expected;
    };
    const std::vector<Case> cases{
        {ClipFormat::video, "a.mov", 125 * MB, 60.0, 60},
        {ClipFormat::video, "a.mov", 125 * MB, std::nullopt, 10},
        {ClipFormat::video, "a.MXF", 125 * MB, 0.0, 10},
        {ClipFormat::video, "a.mp4", 125 * MB, std::nullopt, 20},
        {ClipFormat::braw, "a.braw", 500 * MB, std::nullopt, 10},
        {ClipFormat::r3d, "a.R3D", 500 * MB, std::nullopt, 5},
        {ClipFormat::canonRaw, "a.crm", 600 * MB, std::nullopt, 4},
        {ClipFormat::arriraw, "f", 600 * MB, std::nullopt, 3},
        {ClipFormat::video, "a.mov", 1250 * MB, 0.04, 100}, // a header that was never finished
        {ClipFormat::arriraw, "f", 800 * MB, 1.0, 1},       // fast, but cameras are
        {ClipFormat::video, "a.mov", 125 * MB, std::nan(""), 10},
        {ClipFormat::video, "a.mov", -5, std::nullopt, 0},
    };
    for (const Case& c : cases) {
        ClipInfo info;
        info.duration = c.duration;
        EXPECT_NEAR(SpaceEstimator::seconds(clip(c.format, c.path, c.bytes), &info), c.expected, 1e-9)
            << c.path << " " << c.expected;
    }
}

TEST(SpaceEstimator, AddsUpTheClipsThatGetAProxy) {
    std::vector<Clip> clips{clip(ClipFormat::video, "a.mov", 125 * MB), clip(ClipFormat::braw, "b.braw", 500 * MB),
                            clip(ClipFormat::video, "light.mov", 125 * MB), clip(ClipFormat::video, "SUB/a.mov", MB)};
    clips.back().isCameraProxy = true;
    ProxySettings settings;
    const auto estimate = [&] {
        return SpaceEstimator::proxyBytes(
            clips, settings, [](const Clip& c) { return c.format != ClipFormat::braw; }, {},
            [](const Clip& c) { return c.name == "light.mov"; });
    };
    EXPECT_EQ(estimate(), 0) << "proxies are off";
    settings.enabled = true;
    EXPECT_NEAR(static_cast<double>(estimate()), 14'806'000, 1) << "10 s of 10.768 Mbit/s and 10 %";
    settings.audio = false;
    EXPECT_NEAR(static_cast<double>(estimate()), 13'750'000, 1);
    settings.skipCameraProxies = false;
    EXPECT_GT(estimate(), 13'750'000);
    ClipInfo endless;
    endless.duration = 1e300;
    EXPECT_GT(SpaceEstimator::proxyBytes(clips, settings, {}, [&](const Clip&) { return &endless; }, {}),
              std::int64_t{1} << 60)
        << "a hostile duration is a shortage, not an overflow";
}

} // namespace
} // namespace velmora
