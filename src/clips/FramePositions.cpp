#include "clips/FramePositions.h"

#include "records/Timecode.h"

#include <algorithm>
#include <cmath>

namespace velmora::FramePositions {

namespace {

constexpr double safety = 0.5;     // seconds before a position that is counted from the end
constexpr double sameFrame = 0.25; // of a frame: a seek that much early cannot slip to the next one by rounding
constexpr double longest = 1e9;    // seconds; more is no clip
constexpr std::int64_t mostFrames = 1'000'000'000;

std::optional<double> rateOf(const ClipInfo& info) {
    const auto rate = info.frameRate ? Timecode::fps(*info.frameRate) : std::nullopt;
    return rate && *rate > 0.001 && *rate <= 1e6 ? rate : std::nullopt;
}

// 0 when it is not known.
std::int64_t framesOf(const ClipInfo& info, double rate) {
    if (info.frames && *info.frames > 0)
        return std::min(*info.frames, mostFrames);
    const double seconds = info.duration.value_or(0);
    return seconds > 0 && seconds < longest ? std::min(std::int64_t{std::llround(seconds * rate)}, mostFrames) : 0;
}

// The shorter of what the file says of its time and of its frames.
double lengthOf(const ClipInfo& info, double rate) {
    const double byFrames = static_cast<double>(framesOf(info, rate)) / rate;
    return info.duration && *info.duration > 0 ? std::min(*info.duration, byFrames) : byFrames;
}

double justBefore(std::int64_t frame, double rate) {
    return std::max(0.0, (static_cast<double>(frame) - sameFrame) / rate);
}

} // namespace

std::vector<FramePosition> of(const ClipInfo& info) {
    const double rate = rateOf(info).value_or(0);
    const std::int64_t frames = rate > 0 ? framesOf(info, rate) : 0;
    if (frames == 0)
        return {FramePosition{}};
    const std::int64_t tenth = frames / 10;
    std::vector<FramePosition> positions;
    for (const std::int64_t frame : {tenth, frames / 2})
        if (positions.empty() || frame > positions.back().frame)
            positions.push_back({static_cast<double>(frame) / rate, frame, false});
    const double length = lengthOf(info, rate);
    const std::int64_t late = std::llround((length * 0.9 - safety) * rate);
    const std::int64_t last = frames - 1 - tenth;
    if (late > positions.back().frame)
        positions.push_back({length - safety - justBefore(late, rate), late, true});
    else if (last > positions.back().frame) // too short for half a second to be given away
        positions.push_back({static_cast<double>(last) / rate, last, false});
    return positions;
}

double seekSeconds(const FramePosition& position, const ClipInfo& info) {
    const double rate = rateOf(info).value_or(0);
    if (rate == 0)
        return 0;
    const double seconds =
        position.fromEnd ? lengthOf(info, rate) - position.seconds - safety : position.seconds - sameFrame / rate;
    return std::max(0.0, seconds);
}

} // namespace velmora::FramePositions
