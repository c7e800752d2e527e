#include "proxies/RedMeta.h"

#include "base/Errors.h"
#include "base/Text.h"
#include "records/Clip.h"
#include "records/Timecode.h"

#include <charconv>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>

namespace velmora::RedMeta {

namespace {

using Labels = std::initializer_list<const char*>;

constexpr std::size_t longestText = std::size_t{1} << 20;

// Values by lower-cased label; of a label that stands twice the first one counts.
std::map<std::string, std::string, std::less<>> linesOf(std::string_view text) {
    std::map<std::string, std::string, std::less<>> lines;
    for (const std::string_view line : split(text.substr(0, longestText), '\n')) {
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            continue;
        std::string label = toLower(trim(line.substr(0, colon)));
        std::string value = trim(withValidUtf8(line.substr(colon + 1)));
        if (!label.empty() && !value.empty())
            lines.emplace(std::move(label), std::move(value));
    }
    return lines;
}

// The number at the front: tools write units behind it.
std::optional<std::int64_t> countOf(const std::string& value) {
    constexpr std::int64_t most = 1'000'000'000;
    std::int64_t count = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), count);
    return error == std::errc{} && count > 0 && count <= most ? std::optional(count) : std::nullopt;
}

std::optional<std::string> rateOf(const std::string& value) {
    return ClipInfo::normalizeRate(value.substr(0, value.find_first_not_of("0123456789./")));
}

std::optional<std::string> timecodeOf(const std::string& value) {
    return Timecode::isValid(value) ? std::optional(value) : std::nullopt;
}

} // namespace

ClipInfo parse(std::string_view text) {
    const auto lines = linesOf(text);
    // The value of the first of the labels that has a usable one.
    const auto first = [&](Labels labels, const auto& read) {
        decltype(read(std::string())) value;
        for (const char* label : labels)
            if (const auto line = lines.find(std::string_view(label)); !value && line != lines.end())
                value = read(line->second);
        return value;
    };
    ClipInfo info;
    info.codec = label(ClipFormat::r3d);
    info.width = first({"width", "frame width"}, countOf);
    info.height = first({"height", "frame height"}, countOf);
    info.captureFrameRate = first({"record frame rate", "sensor frame rate"}, rateOf);
    info.frameRate = first({"project frame rate", "timebase", "playback", "fps"}, rateOf);
    if (!info.frameRate)
        info.frameRate = info.captureFrameRate;
    info.frames = first({"total frames", "frame count", "frames"}, countOf);
    info.timecode = first({"abs tc", "absolute timecode", "timecode", "edge tc"}, timecodeOf);
    info.camera = first({"camera model", "camera"}, [](const std::string& value) { return std::optional(value); });
    if (const auto fps = info.frameRate ? Timecode::fps(*info.frameRate) : std::nullopt; fps && info.frames)
        info.duration = static_cast<double>(*info.frames) / *fps;
    if (!info.width && !info.frames)
        throw ToolError("REDline", 0, "unreadable metadata");
    return info;
}

} // namespace velmora::RedMeta
