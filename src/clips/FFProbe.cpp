#include "clips/FFProbe.h"

#include "base/Errors.h"
#include "base/JsonFields.h"
#include "base/Text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

namespace velmora::FFProbe {

using nlohmann::json;

namespace {

constexpr auto tolerant = JsonFields::Reading::tolerant;

// A list of ffprobe's, or an object of its; an empty one in place of anything else.
const json& member(const json& object, const char* key, json::value_t type) {
    static const json noList = json::array();
    static const json noObject = json::object();
    const json* found = JsonFields(object, tolerant).find(key);
    return found && found->type() == type ? *found : type == json::value_t::array ? noList : noObject;
}
const json& tagsOf(const json& object) { return member(object, "tags", json::value_t::object); }

std::optional<std::string> textOf(const json& object, const char* key) {
    return JsonFields(object, tolerant).optionalString(key);
}

// ffprobe writes most numbers as texts; "N/A" is its word for none.
template <class Number>
std::optional<Number> numberOf(const json& object, const char* key) {
    const auto text = textOf(object, key);
    if (!text)
        return std::nullopt;
    const std::string trimmed = trim(*text);
    std::string_view digits = trimmed;
    if (digits.starts_with('+'))
        digits.remove_prefix(1);
    Number value{};
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc{} || end != digits.data() + digits.size() || digits.empty())
        return std::nullopt;
    return value;
}

// Above 100 frames a second ffprobe writes three digits. What two can say is said as everywhere else.
std::optional<std::string> timecodeIn(const json& tags) {
    constexpr std::size_t frames = 9; // where they begin
    auto text = textOf(tags, "timecode");
    if (text && text->size() == frames + 3 && (*text)[frames] == '0')
        text->erase(frames, 1);
    return text;
}

std::optional<double> secondsOf(const json& object) {
    const auto seconds = numberOf<double>(object, "duration");
    return seconds && std::isfinite(*seconds) ? seconds : std::nullopt;
}

std::optional<std::int64_t> bitrateOf(const json& object) {
    const auto rate = numberOf<std::int64_t>(object, "bit_rate");
    return rate && *rate > 0 ? rate : std::nullopt;
}

bool isKind(const json& stream, std::string_view kind) { return textOf(stream, "codec_type") == kind; }

// A cover picture is a video stream of one frame that must not stand in for the clip.
bool isPicture(const json& stream) {
    const json& disposition = member(stream, "disposition", json::value_t::object);
    return isKind(stream, "video") && JsonFields(disposition, tolerant).optionalInteger("attached_pic") != 1;
}

void takePicture(const json& stream, ClipInfo& info) {
    const auto name = textOf(stream, "codec_name");
    const auto profile = textOf(stream, "profile");
    if (name || profile)
        info.codec = name && profile ? *name + " " + *profile : name.value_or(profile.value_or(""));
    // What ffprobe cannot name it cannot measure either; whatever size it states then is not the clip's.
    if (name && name != "unknown") {
        constexpr std::int64_t widest = 1 << 24;
        info.width = JsonFields(stream, tolerant).optionalInteger("width", 1, widest);
        info.height = JsonFields(stream, tolerant).optionalInteger("height", 1, widest);
    }
    info.frameRate = textOf(stream, "avg_frame_rate");
    if (!info.frameRate || info.frameRate == "0/0")
        info.frameRate = textOf(stream, "r_frame_rate");
    info.frames = numberOf<std::int64_t>(stream, "nb_frames");
    info.timecode = timecodeIn(tagsOf(stream));
    info.colorRange = textOf(stream, "color_range");
    info.colorMatrix = textOf(stream, "color_space");
    info.duration = secondsOf(stream);
    info.videoBitrate = bitrateOf(stream);
}

void takeSound(const json& streams, ClipInfo& info) {
    constexpr std::int64_t most = 1 << 16;
    for (const json& stream : streams) {
        if (!isKind(stream, "audio"))
            continue;
        info.audioStreams.push_back(JsonFields(stream, tolerant).optionalInteger("channels", 0, most).value_or(0));
        info.audioChannels += info.audioStreams.back();
    }
}

// What is left of the file's rate when the sound is taken off; where that states none, nothing is taken off for it.
std::optional<std::int64_t> restOfBitrate(const json& format, const json& streams) {
    auto rest = bitrateOf(format);
    if (!rest)
        return std::nullopt;
    for (const json& stream : streams)
        if (isKind(stream, "audio"))
            *rest -= std::min(*rest, bitrateOf(stream).value_or(0));
    return *rest > 0 ? rest : std::nullopt;
}

} // namespace

std::vector<std::string> arguments(const std::string& path) {
    return {"-v", "error", "-print_format", "json", "-show_streams", "-show_format", path};
}

ClipInfo parse(std::string_view output, Timestamp now) {
    const json document = Json::parse(output);
    if (!document.is_object())
        throw ToolError("ffprobe", 0, "unreadable output");
    const json& streams = member(document, "streams", json::value_t::array);
    const json& format = member(document, "format", json::value_t::object);
    ClipInfo info;
    if (const auto picture = std::ranges::find_if(streams, isPicture); picture != streams.end())
        takePicture(*picture, info);
    if (!info.duration)
        info.duration = secondsOf(format);
    takeSound(streams, info);
    if (!info.videoBitrate)
        info.videoBitrate = restOfBitrate(format, streams);
    for (const json& stream : streams) // a track of its own may carry the timecode
        if (!info.timecode)
            info.timecode = timecodeIn(tagsOf(stream));
    const json& tags = tagsOf(format);
    if (!info.timecode)
        info.timecode = timecodeIn(tags);

    info.camera = camera(textOf(tags, "com.apple.quicktime.make"), textOf(tags, "com.apple.quicktime.model"));
    for (const char* key : {"product_name", "company_name"})
        if (!info.camera)
            info.camera = textOf(tags, key);
    const auto takeTags = [&](const json& some) {
        if (!info.reel)
            info.reel = reel(some);
        const auto created = textOf(some, "creation_time");
        if (!info.recorded && created)
            info.recorded = ClipInfo::plausible(recordedDate(*created), now);
    };
    takeTags(tags);
    for (const json& stream : streams)
        takeTags(tagsOf(stream));
    return info;
}

std::optional<std::string> camera(const std::optional<std::string>& make, const std::optional<std::string>& model) {
    const std::string maker = trim(make.value_or(""));
    const std::string name = trim(model.value_or(""));
    if (maker.empty() && name.empty())
        return std::nullopt;
    if (maker.empty() || toLower(name).starts_with(toLower(maker)))
        return name;
    return name.empty() ? maker : maker + " " + name;
}

std::optional<std::string> reel(const json& tags) {
    if (!tags.is_object())
        return std::nullopt;
    for (const std::string_view wanted : {"reel_name", "tape_name", "reel"})
        for (const auto& [key, value] : tags.items()) {
            if (!value.is_string() || toLower(key) != wanted)
                continue;
            if (std::string name = trim(value.get_ref<const std::string&>()); !name.empty())
                return name;
        }
    return std::nullopt;
}

std::optional<Timestamp> recordedDate(std::string_view text) { return TimeText::parseIso8601(trim(text)); }

} // namespace velmora::FFProbe
