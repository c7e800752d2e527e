#include "records/ClipInfo.h"

#include "base/JsonShape.h"
#include "base/Text.h"
#include "records/FrameRate.h"
#include "records/Timecode.h"

#include <fmt/format.h>

#include <cmath>

namespace velmora {

namespace {

std::optional<double> rateOf(const std::optional<std::string>& text) {
    return text ? Timecode::fps(*text) : std::nullopt;
}

} // namespace

std::optional<std::string> ClipInfo::label(const std::optional<std::string>& rate) {
    const auto fps = rateOf(rate);
    if (!fps)
        return std::nullopt;
    return *fps == std::trunc(*fps) ? fmt::format("{:.0f}", *fps) : fmt::format("{:.3f}", *fps);
}

bool ClipInfo::captureDiffers() const {
    const auto capture = rateOf(captureFrameRate), playback = rateOf(frameRate);
    return capture && playback && std::abs(*capture - *playback) > 0.001;
}

std::optional<std::string> ClipInfo::fpsSummary() const {
    if (!captureDiffers())
        return fpsLabel();
    return fmt::format("{} fps · playback {}", *label(captureFrameRate), *fpsLabel());
}

std::string ClipInfo::resolutionLabel() const {
    return width && height ? fmt::format("{}×{}", *width, *height) : std::string();
}

std::optional<std::string> ClipInfo::durationLabel() const {
    if (!duration || !(std::abs(*duration) < 1e12))
        return std::nullopt;
    const auto seconds = static_cast<std::int64_t>(std::llround(*duration));
    return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::optional<std::string> ClipInfo::normalizeRate(const std::optional<std::string>& text) {
    constexpr double highest = 1000;
    auto rate = rateOf(text);
    if (!rate)
        return std::nullopt;
    const bool thousandths = *rate > highest;
    if (thousandths)
        rate = *rate / 1000;
    if (*rate <= 0 || *rate > highest)
        return std::nullopt;
    const std::string trimmed = trim(*text);
    if (!thousandths && trimmed.ends_with("/1001"))
        return trimmed;
    if (!thousandths && trimmed.ends_with("/1") && trimmed.find('.') == std::string::npos)
        return trimmed.substr(0, trimmed.size() - 2);
    return FrameRate::rational(*rate);
}

std::optional<Timestamp> ClipInfo::plausible(std::optional<Timestamp> date, Timestamp now) {
    constexpr Timestamp year2000{946'684'800, 0};
    const Timestamp tomorrow{now.seconds + 86400, now.nanoseconds};
    return date && *date >= year2000 && *date <= tomorrow ? date : std::nullopt;
}

namespace {

using namespace JsonShape;

constexpr std::tuple shape{
    field("codec", &ClipInfo::codec),
    field("width", &ClipInfo::width),
    field("height", &ClipInfo::height),
    field("frameRate", &ClipInfo::frameRate),
    field("duration", &ClipInfo::duration),
    field("frames", &ClipInfo::frames),
    field("timecode", &ClipInfo::timecode),
    field("audioChannels", &ClipInfo::audioChannels),
    field("reel", &ClipInfo::reel),
    field("camera", &ClipInfo::camera),
    field("logEncoding", &ClipInfo::logEncoding),
    field("squeeze", &ClipInfo::squeeze),
    field("colorRange", &ClipInfo::colorRange),
    field("gamma", &ClipInfo::gamma),
    field("gamut", &ClipInfo::gamut),
    field("colorScienceGen", &ClipInfo::colorScienceGen),
    field("captureFrameRate", &ClipInfo::captureFrameRate),
    field("recorded", &ClipInfo::recorded),
};

} // namespace

void to_json(nlohmann::json& j, const ClipInfo& value) { j = JsonShape::encoded(value, shape); }
void from_json(const nlohmann::json& j, ClipInfo& value) {
    value = JsonShape::decoded<ClipInfo>(j, shape, JsonFields::Reading::tolerant);
}

} // namespace velmora
