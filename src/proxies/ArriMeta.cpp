#include "proxies/ArriMeta.h"

#include "base/Errors.h"
#include "base/JsonFields.h"
#include "base/Text.h"
#include "records/Clip.h"
#include "records/Timecode.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace velmora::ArriMeta {

using nlohmann::json;

namespace {

using Keys = std::vector<std::string_view>;

// Calls `take` with each value at the end of the keys, outermost first, until it returns true. Lists count as if their
// elements stood there.
bool follow(const json& node, const Keys& keys, std::size_t at, const std::function<bool(const json&)>& take) {
    if (node.is_array())
        return std::ranges::any_of(node, [&](const json& element) { return follow(element, keys, at, take); });
    if (at == keys.size())
        return take(node);
    if (!node.is_object())
        return false;
    const auto found = node.find(keys[at]);
    return found != node.end() && follow(*found, keys, at + 1, take);
}

// The same, beginning anywhere below `node`. The document is never deeper than the parser lets it be.
bool anywhere(const json& node, const Keys& keys, const std::function<bool(const json&)>& take) {
    if (node.is_object() && follow(node, keys, 0, take))
        return true;
    return node.is_structured() &&
           std::ranges::any_of(node, [&](const json& element) { return anywhere(element, keys, take); });
}

std::optional<double> numberOf(const json& value) {
    const auto number = value.is_number()   ? std::optional(value.get<double>())
                        : value.is_string() ? Timecode::fps(trim(value.get_ref<const std::string&>()))
                                            : std::nullopt;
    return number && std::isfinite(*number) ? number : std::nullopt;
}

std::optional<double> number(const json& node, const Keys& keys, double min, double max) {
    std::optional<double> number;
    anywhere(node, keys, [&](const json& value) {
        const auto one = numberOf(value);
        if (one && *one >= min && *one <= max)
            number = one;
        return number.has_value();
    });
    return number;
}

std::optional<std::int64_t> count(const json& node, const Keys& keys, double max) {
    const auto value = number(node, keys, 1, max);
    return value ? std::optional(static_cast<std::int64_t>(*value)) : std::nullopt;
}

std::optional<std::string> text(const json& node, const Keys& keys,
                                const std::function<bool(const std::string&)>& fits = {}) {
    std::optional<std::string> text;
    anywhere(node, keys, [&](const json& value) {
        if (!value.is_string())
            return false;
        std::string trimmed = trim(value.get_ref<const std::string&>());
        if (!trimmed.empty() && (!fits || fits(trimmed)))
            text = std::move(trimmed);
        return text.has_value();
    });
    return text;
}

std::optional<std::string> rate(const json& node, const Keys& keys) {
    std::optional<std::string> rate;
    anywhere(node, keys, [&](const json& value) {
        rate = ClipInfo::normalizeRate(value.is_string()   ? value.get<std::string>()
                                       : value.is_number() ? fmt::format("{}", value.get<double>())
                                                           : std::string());
        return rate.has_value();
    });
    return rate;
}

// One descriptor each stream; a sample of 24 bits for each of its channels makes one block.
void takeSound(const json& node, ClipInfo& info) {
    constexpr double bytesOfSample = 3;
    constexpr double mostChannels = 64;
    anywhere(node, {"nativeSoundEssenceDescriptorList", "blockAlign"}, [&](const json& value) {
        const double channels = std::floor(numberOf(value).value_or(0) / bytesOfSample);
        if (channels >= 1 && channels <= mostChannels)
            info.audioStreams.push_back(static_cast<std::int64_t>(channels));
        return info.audioStreams.size() >= static_cast<std::size_t>(mostChannels);
    });
    for (const std::int64_t channels : info.audioStreams)
        info.audioChannels += channels;
}

} // namespace

ClipInfo parse(std::string_view input) {
    json document;
    try {
        document = Json::parse(input);
    } catch (const FormatError&) {
        document = nullptr;
    }
    if (!document.is_object())
        throw ToolError("art-cmd", 0, "unreadable metadata");
    constexpr double widest = 1 << 16;
    constexpr double longest = 1e9;
    ClipInfo info;
    info.codec = label(ClipFormat::arriraw);
    for (const char* size : {"storedSize", "displayRect"}) {
        if (info.width && info.height)
            break;
        info.width = count(document, {size, "width"}, widest);
        info.height = count(document, {size, "height"}, widest);
    }
    info.frameRate = rate(document, {"nativePictureEssenceDescriptor", "file", "sampleRate"});
    info.captureFrameRate = rate(document, {"sensorSampleRate"});
    if (!info.frameRate)
        info.frameRate = info.captureFrameRate;
    info.frames = count(document, {"clipDuration"}, longest);
    // Only what is said frame by frame; other lists have timecodes too.
    const auto isTimecode = [](const std::string& value) { return Timecode::isValid(value); };
    anywhere(document, {"frameBasedMetadata"}, [&](const json& frames) {
        info.timecode = text(frames, {"timecode"}, isTimecode);
        return info.timecode.has_value();
    });
    if (!info.timecode)
        info.timecode = text(document, {"frames", "timecode"}, isTimecode);
    info.camera = text(document, {"cameraModel"});
    info.logEncoding = text(document, {"sceneColorEncodingTransferCurve"});
    constexpr double mildest = 0.25, strongest = 4;
    info.squeeze = number(document, {"squeeze"}, mildest, strongest);
    takeSound(document, info);
    return info;
}

} // namespace velmora::ArriMeta
