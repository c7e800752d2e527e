#include "proxies/FrameCount.h"

#include "base/JsonFields.h"
#include "proxies/ToolProcess.h"
#include "records/Timecode.h"

#include <cmath>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace velmora::FrameCount {

namespace {

constexpr auto tolerant = JsonFields::Reading::tolerant;

// ffprobe writes seconds as text.
std::optional<double> secondsOf(const JsonFields& fields) {
    const auto text = fields.optionalString("duration");
    return text ? Timecode::fps(*text) : std::nullopt;
}

std::optional<double> lengthOf(const nlohmann::json& document) {
    const JsonFields top(document, tolerant);
    if (const nlohmann::json* streams = top.array("streams"); streams != nullptr && !streams->empty()) {
        const JsonFields stream(streams->front(), tolerant);
        const auto ticks = stream.optionalInteger("duration_ts");
        const auto base = stream.optionalString("time_base");
        if (const auto tick = base ? Timecode::fps(*base) : std::nullopt; ticks && tick)
            return static_cast<double>(*ticks) * *tick;
        if (const auto seconds = secondsOf(stream))
            return seconds;
    }
    const nlohmann::json* format = top.find("format");
    return format != nullptr ? secondsOf(JsonFields(*format, tolerant)) : std::nullopt;
}

} // namespace

std::optional<std::int64_t> parse(std::string_view json, double fps) try {
    constexpr double most = 1e9;
    const double frames = std::round(lengthOf(Json::parse(json)).value_or(0) * fps);
    return frames >= 1 && frames <= most ? std::optional(static_cast<std::int64_t>(frames)) : std::nullopt;
} catch (const FormatError&) {
    return std::nullopt;
}

std::optional<std::int64_t> of(const ExternalTools& tools, const std::string& path, double fps,
                               const IsCancelled& isCancelled) {
    if (!tools.ffprobe)
        return std::nullopt;
    auto options = ToolProcess::options(*tools.ffprobe, {"-v", "error", "-select_streams", "v:0", "-show_entries",
                                                         "stream=duration_ts,time_base,duration:format=duration",
                                                         "-print_format", "json", "file:" + path});
    options.outputLimit = std::size_t{1} << 20;
    constexpr double patience = 60; // seconds
    try {
        return parse(ChildProcess::run(std::move(options), patience, isCancelled), fps);
    } catch (const ToolError& error) {
        if (error.message() == "cancelled")
            throw;
        return std::nullopt;
    }
}

void check(const ExternalTools& tools, const std::string& path, const ClipInfo& clip, const std::string& tool,
           const IsCancelled& isCancelled) {
    const auto fps = clip.frameRate ? Timecode::fps(*clip.frameRate) : std::nullopt;
    if (!fps || !clip.frames)
        return;
    const auto found = of(tools, path, *fps, isCancelled);
    // A rate that the tool rounds differently moves the sum by a frame.
    if (found && *found + 1 < *clip.frames)
        throw ToolError(tool, 0, fmt::format("decoded {} of {} frames", *found, *clip.frames));
}

} // namespace velmora::FrameCount
