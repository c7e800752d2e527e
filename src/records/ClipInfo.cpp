#include "records/ClipInfo.h"

#include "base/JsonFields.h"
#include "base/Text.h"
#include "records/FrameRate.h"
#include "records/Timecode.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

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
    if (!(*rate > 0 && *rate <= highest))
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

void to_json(nlohmann::json& j, const ClipInfo& value) {
    j = {{"audioChannels", value.audioChannels}};
    Json::put(j, "codec", value.codec);
    Json::put(j, "width", value.width);
    Json::put(j, "height", value.height);
    Json::put(j, "frameRate", value.frameRate);
    Json::put(j, "duration", value.duration);
    Json::put(j, "frames", value.frames);
    Json::put(j, "timecode", value.timecode);
    Json::put(j, "reel", value.reel);
    Json::put(j, "camera", value.camera);
    Json::put(j, "logEncoding", value.logEncoding);
    Json::put(j, "squeeze", value.squeeze);
    Json::put(j, "colorRange", value.colorRange);
    Json::put(j, "gamma", value.gamma);
    Json::put(j, "gamut", value.gamut);
    Json::put(j, "colorScienceGen", value.colorScienceGen);
    Json::put(j, "captureFrameRate", value.captureFrameRate);
    Json::put(j, "recorded", value.recorded);
}

void from_json(const nlohmann::json& j, ClipInfo& value) {
    const JsonFields fields(j, JsonFields::Reading::tolerant);
    value.codec = fields.optionalString("codec");
    value.width = fields.optionalInteger("width");
    value.height = fields.optionalInteger("height");
    value.frameRate = fields.optionalString("frameRate");
    value.duration = fields.optionalNumber("duration");
    value.frames = fields.optionalInteger("frames");
    value.timecode = fields.optionalString("timecode");
    value.audioChannels = fields.integerOr("audioChannels", 0);
    value.audioStreams.clear();
    value.videoBitrate.reset();
    value.reel = fields.optionalString("reel");
    value.camera = fields.optionalString("camera");
    value.logEncoding = fields.optionalString("logEncoding");
    value.squeeze = fields.optionalNumber("squeeze");
    value.colorRange = fields.optionalString("colorRange");
    value.gamma = fields.optionalString("gamma");
    value.gamut = fields.optionalString("gamut");
    value.colorScienceGen = fields.optionalInteger("colorScienceGen");
    value.captureFrameRate = fields.optionalString("captureFrameRate");
    value.recorded = fields.optionalTimestamp("recorded");
}

} // namespace velmora
