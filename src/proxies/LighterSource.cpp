#include "proxies/LighterSource.h"

#include "disks/SpaceEstimator.h"
#include "proxies/FrameLines.h"
#include "records/Timecode.h"

#include <fmt/format.h>

namespace velmora::LighterSource {

std::optional<std::string> reason(const ClipInfo& info, const ProxySettings& settings, const LutUse& lut) {
    // Whatever changes the picture needs a proxy, light or not.
    const bool changed = !lut.source.empty() || settings.burnFilename || settings.burnTimecode ||
                         FrameLines::label(settings) || FrameLines::scale(settings) < 1.0;
    if (!settings.skipLighterSources || changed || !info.videoBitrate || !info.height || !info.width)
        return std::nullopt;
    // A larger picture is no proxy of its own: an editor wants the small one for its size.
    if (*info.height > settings.height || *info.width > settings.height * 16 / 9 + 1)
        return std::nullopt;
    constexpr double bitsPerMegabit = 1000000;
    const double source = static_cast<double>(*info.videoBitrate) / bitsPerMegabit;
    const double fps = info.frameRate ? Timecode::fps(*info.frameRate).value_or(0) : 0;
    const std::vector<std::int64_t> silent;
    const double proxy = SpaceEstimator::proxyMbps(settings.codec, settings.height, silent, settings.bitrateMbps, fps);
    if (source > proxy)
        return std::nullopt;
    return fmt::format("{}, {:.1f} Mbit/s against {:.1f} Mbit/s", info.resolutionLabel(), source, proxy);
}

std::optional<std::string> note(const ClipInfo& info, const ProxySettings& settings, const LutUse& lut) {
    const auto why = reason(info, settings, lut);
    return why ? std::optional(fmt::format("no proxy — the original is lighter ({})", *why)) : std::nullopt;
}

} // namespace velmora::LighterSource
