#include "proxies/EncoderTrial.h"

#include "proxies/ToolProcess.h"

#include <fmt/format.h>
#include <utility>

namespace velmora {

namespace {

constexpr double patience = 20; // seconds: a driver that takes longer for one frame is of no use

std::string lastLine(const ToolError& error) {
    const std::string text = error.what();
    return text.substr(text.rfind(" | ") == std::string::npos ? 0 : text.rfind(" | ") + 3);
}

} // namespace

std::vector<EncoderTrial::Decoder> EncoderTrial::hardwareDecoders() {
    return {{"cuda", {"/dev/nvidiactl", "/dev/dxg"}}, {"vaapi", {"/dev/dri"}}, {"qsv", {"/dev/dri"}}};
}

EncoderTrial::EncoderTrial(std::string ffmpeg, Log log, std::vector<Decoder> decoders)
    : ffmpeg_(std::move(ffmpeg)), log_(std::move(log)), decoders_(std::move(decoders)) {}

VideoEncoder EncoderTrial::encoder(ProxyCodec codec, std::int64_t height, const IsCancelled& isCancelled) {
    MutexLock lock(mutex_);
    const std::pair key{codec, height};
    const auto known = encoders_.find(key);
    return known != encoders_.end() ? known->second
                                    : encoders_.emplace(key, tryAll(codec, height, isCancelled)).first->second;
}

VideoEncoder EncoderTrial::tryAll(ProxyCodec codec, std::int64_t height, const IsCancelled& isCancelled) {
    const auto candidates = EncoderArgs::candidates(codec);
    for (const VideoEncoder& one : candidates) {
        if (!EncoderArgs::mayHave(one.devices))
            continue;
        std::vector<std::string> words = {"-hide_banner", "-loglevel", "error", "-nostdin"};
        words.insert(words.end(), one.deviceArgs.begin(), one.deviceArgs.end());
        const std::int64_t width = height * 16 / 9 / 2 * 2;
        std::string filter = "format=" + EncoderArgs::pixelFormat(codec);
        if (!one.filterEnd.empty())
            filter += "," + one.filterEnd;
        words.insert(words.end(), {"-f", "lavfi", "-i", fmt::format("color=black:size={}x{}:rate=25", width, height),
                                   "-vf", filter, "-frames:v", "1"});
        constexpr std::int64_t someRate = 10;
        const auto encode = EncoderArgs::video(one, codec, someRate, 25);
        words.insert(words.end(), encode.begin(), encode.end());
        words.insert(words.end(), {"-f", "null", "-"});
        try {
            ToolProcess::run(ffmpeg_, words, {}, patience, isCancelled);
            log_(fmt::format("proxies: encoding with {}", one.name));
            return one;
        } catch (const ToolError& error) {
            if (&one == &candidates.back() || (isCancelled && isCancelled()))
                throw;
            log_(fmt::format("proxies: {} does not work here ({})", one.name, lastLine(error)));
        }
    }
    throw ToolError("ffmpeg", -1, "no encoder"); // there is always a candidate
}

std::optional<std::string> EncoderTrial::decoder(const IsCancelled& isCancelled) {
    MutexLock lock(mutex_);
    if (decoder_)
        return *decoder_;
    std::optional<std::string> found;
    for (const auto& [method, devices] : decoders_) {
        if (!EncoderArgs::mayHave(devices))
            continue;
        try {
            ToolProcess::run(ffmpeg_,
                             {"-hide_banner", "-loglevel", "error", "-nostdin", "-init_hw_device", method, "-f",
                              "lavfi", "-i", "color=black:size=64x64", "-frames:v", "1", "-f", "null", "-"},
                             {}, patience, isCancelled);
            found = method;
            break;
        } catch (const ToolError&) {
            if (isCancelled && isCancelled())
                throw;
        }
    }
    log_(found ? fmt::format("proxies: decoding with {} where it can", *found)
               : std::string("proxies: decoding in software, there is no hardware for it"));
    decoder_ = found;
    return found;
}

} // namespace velmora
