#include "disks/SpaceEstimator.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "records/ClipInfo.h"
#include "records/Timecode.h"

#include <algorithm>
#include <cmath>

namespace velmora {

namespace {

// ProRes 422 HQ, 1920×1080 at 30 frames a second. The other flavours are shares of it by their nominal rates; all of
// them grow with the area of the picture and with the frame rate. At lower frame rates the encoder spends no less than
// it should, so slower footage is not counted smaller: cheap head-room.
constexpr double prores422HQMbps = 220.0;
constexpr double referenceHeight = 1080.0;
constexpr double referenceFps = 30.0;

// Sound of a clip that has not been probed: six streams at the least rate, more than most cameras record.
constexpr double unknownAudioMbps = 0.768;
constexpr double kilobitsPerMegabit = 1000.0;

// Containers, indexes and encoders that overshoot their rate.
constexpr double overhead = 1.1;

constexpr double bitsPerMegabit = 1000000;
constexpr double bytesPerBit = 0.125;

// Bytes a second of camera RAW at common settings. Rates at the low end of what each format is used at: they make a
// clip longer, and its proxy bigger, than it is.
constexpr double brawRate = 50000000;
constexpr double r3dRate = 100000000;
constexpr double canonRawRate = 150000000;
constexpr double arrirawRate = 200000000;
// No camera writes faster. A header that was never finished may state a duration of a frame or two for a clip of many
// minutes, and a duration that would need more than this is not believed.
constexpr double fastestVideo = 500000000;
constexpr double fastestRaw = 1000000000;

bool isRaw(ClipFormat format) { return format != ClipFormat::video && format != ClipFormat::unknown; }

double proresShare(ProxyCodec codec) {
    switch (codec) {
    case ProxyCodec::proresProxy:
        return 45.0 / 220.0;
    case ProxyCodec::proresLT:
        return 102.0 / 220.0;
    case ProxyCodec::prores422:
        return 147.0 / 220.0;
    default:
        return 1.0;
    }
}

double videoMbps(ProxyCodec codec, std::int64_t height, std::int64_t bitrateMbps, double fps) {
    if (codec == ProxyCodec::h264 || codec == ProxyCodec::hevc)
        return static_cast<double>(bitrateMbps); // the encoder is held to it at every height
    const double lines = static_cast<double>(height) / referenceHeight;
    return prores422HQMbps * proresShare(codec) * lines * lines * std::max(1.0, fps / referenceFps);
}

// 64 kbit/s for each channel, within the limits that the encoder is given for a stream.
double audioMbps(const SpaceEstimator::AudioStreams& streams) {
    if (!streams)
        return unknownAudioMbps;
    double kilobits = 0;
    for (const std::int64_t channels : *streams)
        kilobits += static_cast<double>(std::clamp<std::int64_t>(channels, 2, 8)) * 64;
    return kilobits / kilobitsPerMegabit;
}

bool getsProxy(const Clip& clip, const ProxySettings& settings, const SpaceEstimator::ClipTest& renderable,
               const SpaceEstimator::ClipTest& noProxy) {
    if (clip.isCameraProxy && settings.skipCameraProxies)
        return false;
    return (!renderable || renderable(clip)) && (!noProxy || !noProxy(clip));
}

double clipBytes(const Clip& clip, const ProxySettings& settings, const ClipInfo* info) {
    const double fps = info != nullptr && info->frameRate ? Timecode::fps(*info->frameRate).value_or(0) : 0;
    SpaceEstimator::AudioStreams audio;
    if (!settings.audio)
        audio.emplace();
    else if (info != nullptr)
        audio = info->audioStreams;
    return SpaceEstimator::seconds(clip, info) *
           SpaceEstimator::proxyMbps(settings.codec, settings.height, audio, settings.bitrateMbps, fps) *
           bitsPerMegabit * bytesPerBit;
}

} // namespace

double SpaceEstimator::proxyMbps(ProxyCodec codec, std::int64_t height, const AudioStreams& audio,
                                 std::int64_t bitrateMbps, double fps) {
    return (videoMbps(codec, height, bitrateMbps, fps) + audioMbps(audio)) * overhead;
}

double SpaceEstimator::sourceMbps(ClipFormat format, std::string_view path) {
    constexpr double toMegabits = 8 / bitsPerMegabit;
    switch (format) {
    case ClipFormat::braw:
        return brawRate * toMegabits;
    case ClipFormat::r3d:
        return r3dRate * toMegabits;
    case ClipFormat::canonRaw:
        return canonRawRate * toMegabits;
    case ClipFormat::arriraw:
        return arrirawRate * toMegabits;
    default:
        break;
    }
    // MXF and MOV are where cameras put the codecs of the edit; the other containers hold long-GOP recordings.
    const std::string extension = toLower(RelativePath::extension(path));
    return extension == "mxf" || extension == "mov" ? 100.0 : 50.0;
}

double SpaceEstimator::seconds(const Clip& clip, const ClipInfo* info) {
    const double bytes = static_cast<double>(std::max<std::int64_t>(clip.bytes, 0));
    if (info != nullptr && info->duration && *info->duration > 0 && std::isfinite(*info->duration) &&
        bytes <= *info->duration * (isRaw(clip.format) ? fastestRaw : fastestVideo))
        return *info->duration;
    return bytes * 8 / (sourceMbps(clip.format, clip.path) * bitsPerMegabit);
}

std::int64_t SpaceEstimator::proxyBytes(const std::vector<Clip>& clips, const ProxySettings& settings,
                                        const ClipTest& renderable, const InfoOf& info, const ClipTest& noProxy) {
    if (!settings.enabled)
        return 0;
    double bytes = 0;
    for (const Clip& clip : clips)
        if (getsProxy(clip, settings, renderable, noProxy))
            bytes += clipBytes(clip, settings, info ? info(clip) : nullptr);
    constexpr double most = 9.0e18; // a hostile duration must not overflow the sum of a disk
    return static_cast<std::int64_t>(std::min(std::ceil(bytes), most));
}

} // namespace velmora
