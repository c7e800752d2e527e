#include "proxies/EncoderArgs.h"

#include "platform/IO.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace velmora::EncoderArgs {

namespace {

using Words = std::vector<std::string>;

// The quality of a proxy is bounded by its rate, so that the faster presets lose little and save a lot of time.
constexpr const char* x26xPreset = "veryfast";

// Where the drivers of NVIDIA's cards are met, on Linux and in a Linux under Windows, and all others.
const Words nvidia = {"/dev/nvidiactl", "/dev/dxg"};
const Words render = {"/dev/dri"};

const Words vaapi = {"-init_hw_device", "vaapi=gpu", "-filter_hw_device", "gpu"};
constexpr const char* upload = "format=nv12,hwupload";

std::vector<VideoEncoder> h264() {
    return {
        {"h264_nvenc", {}, {"-profile:v", "high", "-bf", "2", "-no-scenecut", "1", "-strict_gop", "1"}, {}, nvidia},
        {"h264_vaapi", vaapi, {"-profile:v", "high", "-bf", "2"}, upload, render},
        {"h264_vaapi", vaapi, {"-profile:v", "high", "-bf", "0"}, upload, render},
        {"h264_qsv", {}, {"-profile:v", "high", "-bf", "2"}, "format=nv12", render},
        {"libx264", {}, {"-preset", x26xPreset, "-profile:v", "high", "-bf", "2"}},
    };
}

std::vector<VideoEncoder> hevc() {
    return {
        {"hevc_nvenc", {}, {"-profile:v", "main", "-bf", "2", "-no-scenecut", "1", "-strict_gop", "1"}, {}, nvidia},
        {"hevc_vaapi", vaapi, {"-profile:v", "main", "-bf", "0"}, upload, render},
        {"hevc_qsv", {}, {"-profile:v", "main", "-bf", "2"}, "format=nv12", render},
        {"libx265",
         {},
         {"-preset", x26xPreset, "-profile:v", "main", "-bf", "2", "-x265-params", "open-gop=0:log-level=error"}},
    };
}

bool isProRes(ProxyCodec codec) { return codec != ProxyCodec::h264 && codec != ProxyCodec::hevc; }

// The profile numbers of prores_ks.
int proResProfile(ProxyCodec codec) {
    switch (codec) {
    case ProxyCodec::proresProxy:
        return 0;
    case ProxyCodec::proresLT:
        return 1;
    case ProxyCodec::prores422:
        return 2;
    default:
        return 3;
    }
}

} // namespace

bool mayHave(const std::vector<std::string>& devices) {
    return devices.empty() || std::ranges::any_of(devices, [](const std::string& path) { return !IO::isGone(path); });
}

std::vector<VideoEncoder> candidates(ProxyCodec codec) {
    if (codec == ProxyCodec::h264)
        return h264();
    if (codec == ProxyCodec::hevc)
        return hevc();
    return {{"prores_ks", {}, {"-profile:v", std::to_string(proResProfile(codec)), "-vendor", "apl0"}}};
}

std::string pixelFormat(ProxyCodec codec) { return isProRes(codec) ? "yuv422p10le" : "yuv420p"; }

std::vector<std::string> video(const VideoEncoder& encoder, ProxyCodec codec, std::int64_t bitrateMbps, double fps) {
    Words words = {"-c:v", encoder.name};
    words.insert(words.end(), encoder.arguments.begin(), encoder.arguments.end());
    if (!isProRes(codec)) {
        const auto group = static_cast<std::int64_t>(std::clamp(std::round(fps), 1.0, 300.0));
        const std::int64_t most = bitrateMbps + bitrateMbps / 2; // half as much again for the frames that need it
        words.insert(words.end(),
                     {"-g", std::to_string(group), "-flags", "+cgop", "-b:v", fmt::format("{}M", bitrateMbps),
                      "-maxrate", fmt::format("{}M", most), "-bufsize", fmt::format("{}M", 2 * bitrateMbps)});
    }
    if (codec == ProxyCodec::hevc)
        words.insert(words.end(), {"-tag:v", "hvc1"}); // the name under which players of MOV files know it
    words.insert(words.end(),
                 {"-color_primaries", "bt709", "-color_trc", "bt709", "-colorspace", "bt709", "-color_range", "tv"});
    return words;
}

std::int64_t audioKilobits(std::int64_t channels) { return std::clamp<std::int64_t>(channels, 2, 8) * 64; }

std::vector<std::string> audio(const std::vector<std::int64_t>& streams) {
    Words words = {"-c:a", "aac"};
    for (std::size_t i = 0; i < streams.size(); ++i) {
        constexpr std::int64_t mostNamed = 8; // 1 to 8 channels and 16 have an AAC layout
        constexpr std::int64_t hexadecagonal = 16;
        if (streams[i] <= mostNamed || streams[i] == hexadecagonal)
            words.insert(words.end(), {fmt::format("-b:a:{}", i), fmt::format("{}k", audioKilobits(streams[i]))});
        else
            words.insert(words.end(), {fmt::format("-c:a:{}", i), "pcm_s16le"});
    }
    return words;
}

} // namespace velmora::EncoderArgs
