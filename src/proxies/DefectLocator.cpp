#include "proxies/DefectLocator.h"

#include "base/JsonFields.h"
#include "clips/ContentCheck.h"
#include "proxies/ToolProcess.h"
#include "records/Timecode.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>

namespace velmora::DefectLocator {

using nlohmann::json;

namespace {

// How far the frame that was known lies behind the damage at most, and in front of it: half a second of progress, and
// the frames that an encoder looks ahead; five seconds that a reader looks into a file before its first frame.
constexpr double secondsBefore = 3;
constexpr double secondsAfter = 20;
constexpr double patience = 300;

std::optional<double> secondsIn(const json& object, const char* key) {
    const auto text = JsonFields(object, JsonFields::Reading::tolerant).optionalString(key);
    double seconds = 0;
    if (!text)
        return std::nullopt;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), seconds);
    return error == std::errc{} && std::isfinite(seconds) ? std::optional(seconds) : std::nullopt;
}

const json& listIn(const json& object, const char* key) {
    static const json none = json::array();
    const json* list = JsonFields(object, JsonFields::Reading::tolerant).array(key);
    return list ? *list : none;
}

// How surely a frame is the damaged one.
enum class Sign { none, errorInOtherWords, frameMissing, damageByItsWords };

Sign complaint(const json& frame) {
    constexpr std::int64_t errorLevel = 16; // ffmpeg's number
    Sign sign = Sign::none;
    for (const json& line : listIn(frame, "logs")) {
        const JsonFields fields(line, JsonFields::Reading::tolerant);
        if (ContentCheck::kindOf(fields.optionalString("message").value_or("")))
            return Sign::damageByItsWords;
        if (fields.optionalInteger("level").value_or(errorLevel + 1) <= errorLevel)
            sign = Sign::errorInOtherWords;
    }
    return sign;
}

// The times of one stream's frames. A frame that could not be decoded at all leaves a gap, and what its decoder said of
// it is lost with it.
struct Clock {
    std::optional<double> last;
    double step = 0; // the first one

    // Where the missing frame before this one was.
    std::optional<double> gapBefore(double time) {
        const double delta = last ? time - *last : 0;
        std::optional<double> gap;
        if (step > 0 && delta > 1.5 * step)
            gap = *last + step;
        if (step <= 0)
            step = delta;
        last = time;
        return gap;
    }
};

} // namespace

std::optional<std::int64_t> firstDefect(std::string_view answer, double rate) {
    const json document = Json::parse(answer);
    std::optional<double> start;
    for (const json& stream : listIn(document, "streams"))
        if (const auto time = secondsIn(stream, "start_time"))
            start = std::min(start.value_or(*time), *time);
    std::map<std::int64_t, Clock> clocks;
    double found = 0;
    Sign surest = Sign::none;
    const auto take = [&](Sign sign, double time) {
        if (sign > surest)
            found = time;
        surest = std::max(surest, sign);
    };
    for (const json& frame : listIn(document, "frames")) {
        const auto time = secondsIn(frame, "best_effort_timestamp_time");
        if (!time)
            continue;
        const auto stream = JsonFields(frame, JsonFields::Reading::tolerant).optionalInteger("stream_index");
        if (const auto gap = clocks[stream.value_or(0)].gapBefore(*time))
            take(Sign::frameMissing, *gap);
        take(complaint(frame), *time);
    }
    constexpr double farthest = 1e12;
    const double frame = (found - start.value_or(0)) * rate;
    return surest != Sign::none && frame > -0.5 && frame < farthest
               ? std::optional(static_cast<std::int64_t>(std::floor(frame + 0.5)))
               : std::nullopt;
}

namespace {

// In the pictures, or in the sound, of the stretch around that second.
std::optional<std::int64_t> search(const std::string& path, bool sound, double around, double rate,
                                   const std::string& ffprobe, const IsCancelled& isCancelled) {
    const double from = std::max(0.0, around - secondsBefore);
    ChildProcess::Options options = ToolProcess::options(
        ffprobe, {"-v", "error", "-threads", "1", "-select_streams", sound ? "a" : "V:0", "-read_intervals",
                  fmt::format("{:.3f}%+{:.3f}", from, secondsBefore + secondsAfter), "-show_log", "16", "-show_frames",
                  "-show_streams", "-show_entries",
                  "stream=start_time:frame=stream_index,best_effort_timestamp_time:log=level,message", "-print_format",
                  "json", path});
    try {
        return firstDefect(ChildProcess::run(std::move(options), patience, isCancelled), rate);
    } catch (const ToolError&) {   // it stands as it was heard, also when there is no time left for a closer look
    } catch (const FormatError&) { // a file that confuses even ffprobe
    }
    return std::nullopt;
}

} // namespace

void refine(ClipContent& content, const std::string& path, const ClipInfo& info, const ExternalTools& tools,
            const IsCancelled& isCancelled) {
    const double rate = (info.frameRate ? Timecode::fps(*info.frameRate) : std::nullopt).value_or(0);
    if (!tools.ffprobe || !content.frame || !(rate > 0.01) || (content.kind != "audio" && content.kind != "decode"))
        return;
    const double around = static_cast<double>(*content.frame) / rate;
    std::optional<std::int64_t> frame;
    if (content.kind == "decode")
        frame = search(path, false, around, rate, *tools.ffprobe, isCancelled);
    // ffmpeg says "error while decoding" of sound, too.
    if (!frame && info.audioChannels > 0) {
        frame = search(path, true, around, rate, *tools.ffprobe, isCancelled);
        if (frame)
            content.kind = "audio";
    }
    if (!frame)
        return;
    content.frame = frame;
    content.timecode = ContentCheck::timecodeAt(*frame, info);
}

} // namespace velmora::DefectLocator
