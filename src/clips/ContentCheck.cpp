#include "clips/ContentCheck.h"

#include "base/Text.h"
#include "records/Timecode.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fmt/format.h>

namespace velmora {

namespace {

// Lower case. What decoders, the file's reader and ffmpeg itself say of data that is not what was recorded.
constexpr std::array decodeWords = std::to_array<std::string_view>({
    "corrupt decoded frame",
    "decoding error",
    "error while decoding",
    "concealing",
    "invalid nal",
    "corrupt input packet",
    "packet corrupt",
    "invalid data found",
    "missing picture",
    "error splitting",
    "partial file",
    "decode_slice",
    "error submitting packet to decoder",
    // Words of single decoders that go on as if nothing had been, and leave it at that.
    "tex damaged",
    "error count:",
    "error at mb",
    "error y=",
    "cabac_max_bin",
    "is outside the valid range",
    "in violation of frame header",
    // Matroska says neither how many frames it holds, nor, cut between two of them, that one is broken.
    "file ended prematurely",
});
constexpr std::array timestampWords = std::to_array<std::string_view>({
    "non-monotonic",
    "non monotonically",
    "invalid timestamp",
    "timestamps are unset",
    "invalid dts",
});
// These words mean damage from a decoder of sound only; elsewhere they are said of sound clips as well.
constexpr std::array audioWords = std::to_array<std::string_view>({
    "exceeds limit",
    "is not allocated",
    "is not allowed",
    "reserved bit set",
    "input buffer exhausted",
    "invalid pcm packet",
    "header missing",
    "does not match the sample rate",
    "overread",
    "crc mismatch",
    "invalid frame",
    "error decoding",
});
constexpr std::array audioDecoders = std::to_array<std::string_view>(
    {"aac", "pcm_", "mp3", "mp2", "ac3", "eac3", "opus", "flac", "alac", "dca", "truehd", "vorbis"});

// What these say is of the proxy: of frames that they get in an order which is no fault of the clip, for one.
constexpr std::array encoders =
    std::to_array<std::string_view>({"libx264", "libx265", "prores_ks", "h264_nvenc", "hevc_nvenc", "h264_vaapi",
                                     "hevc_vaapi", "h264_qsv", "hevc_qsv"});

bool holdsOneOf(std::string_view line, const auto& words) {
    return std::ranges::any_of(words, [&](std::string_view word) { return line.find(word) != std::string_view::npos; });
}

// "[aac @ 0x55d4] …", in lower case.
bool isFromOneOf(std::string_view line, const auto& speakers) {
    return line.starts_with('[') &&
           std::ranges::any_of(speakers, [&](std::string_view speaker) { return line.substr(1).starts_with(speaker); });
}

// Without the speaker in brackets, and no longer than a report can show.
std::string messageOf(std::string_view line) {
    constexpr std::size_t longest = 320;
    while (line.starts_with('[')) {
        const std::size_t end = line.find(']');
        if (end == std::string_view::npos)
            break;
        line.remove_prefix(end + 1);
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    }
    const std::string valid = withValidUtf8(line);
    return trim(cutUtf8(valid, longest));
}

double rateOf(const ClipInfo& info) {
    return (info.frameRate ? Timecode::fps(*info.frameRate) : std::nullopt).value_or(0);
}

// The number of frames that the file states. MXF counts the length of its pictures in frames, and ffprobe gives it in
// seconds only; the seconds of other files may be those of their sound.
std::optional<std::int64_t> statedFrames(const Clip& clip, const ClipInfo& info) {
    constexpr double longest = 1e12; // frames
    const double frames = info.duration.value_or(0) * rateOf(info);
    const bool isStated = frames >= 1 && frames < longest;
    return !info.frames && isStated && toLower(clip.path).ends_with(".mxf") ? std::llround(frames) : info.frames;
}

// The least number of frames that a sound clip gives. It can be less than the file counts: an edit list hides frames,
// and then only the duration tells; the frames before the first that can be decoded alone are lost; and a rate that is
// written with three digits is wrong by some frames in a long clip.
std::int64_t fewestExpected(std::int64_t frames, const ClipInfo& info) {
    constexpr std::int64_t unreadableStart = 8;
    constexpr double roughness = 0.001;
    double fewest = static_cast<double>(frames);
    const double rate = rateOf(info);
    if (rate > 0 && info.duration && *info.duration > 0)
        fewest = std::min(fewest, *info.duration * rate);
    return static_cast<std::int64_t>(std::max(1.0, fewest * (1 - roughness) - unreadableStart));
}

} // namespace

std::optional<std::string_view> ContentCheck::kindOf(std::string_view line) {
    const std::string lower = toLower(line);
    if (isFromOneOf(lower, encoders))
        return std::nullopt;
    const bool isAudio = isFromOneOf(lower, audioDecoders);
    if (isAudio && (holdsOneOf(lower, audioWords) || holdsOneOf(lower, decodeWords)))
        return "audio";
    // All that this decoder says of a frame whose code runs on beyond its end.
    const bool isOverread = lower.starts_with("[mjpeg") && lower.find("overread") != std::string::npos;
    if (isOverread || holdsOneOf(lower, decodeWords))
        return "decode";
    const bool isOfProxy = lower.find("in output stream") != std::string::npos;
    if (!isOfProxy && holdsOneOf(lower, timestampWords))
        return "timestamps";
    return std::nullopt;
}

void ContentCheck::errorLine(std::string_view line) {
    const auto kind = kindOf(line);
    if (!kind)
        return;
    MutexLock lock(mutex_);
    if (kind_)
        return;
    kind_ = *kind;
    message_ = messageOf(line);
    at_ = frame_;
}

void ContentCheck::progressLine(std::string_view line) {
    constexpr std::string_view key = "frame=";
    if (!line.starts_with(key))
        return;
    const std::string digits = trim(line.substr(key.size()));
    std::int64_t frame = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), frame);
    if (error != std::errc{} || end != digits.data() + digits.size() || frame < 0)
        return;
    MutexLock lock(mutex_);
    frame_ = frame;
}

void ContentCheck::reset() {
    MutexLock lock(mutex_);
    frame_ = 0;
    kind_.reset();
    message_.reset();
    at_.reset();
}

std::optional<std::string> ContentCheck::timecodeAt(std::int64_t frame, const ClipInfo& info) {
    const double rate = rateOf(info);
    return info.timecode && rate > 0 ? Timecode::add(*info.timecode, frame, rate) : std::nullopt;
}

ClipContent ContentCheck::verdict(const Clip& clip, const ClipInfo& info) const {
    const auto expected = statedFrames(clip, info);
    MutexLock lock(mutex_);
    ClipContent content;
    content.framesDecoded = frame_;
    content.framesExpected = expected;
    if (kind_) {
        content.kind = kind_;
        content.message = message_;
        content.frame = at_;
    } else if (expected && *expected > 0 && frame_ < fewestExpected(*expected, info)) {
        content.kind = "frames";
        content.message = fmt::format("decoded {} of {} frames", frame_, *expected);
        content.frame = frame_;
    }
    content.state = content.kind ? defect : ok;
    if (content.frame)
        content.timecode = timecodeAt(*content.frame, info);
    if (!content.kind)
        content.message = fmt::format("decoded {} frames", frame_);
    return content;
}

} // namespace velmora
