#include "Stable.h"
#include "base/Errors.h"
#include "clips/ContentCheck.h"
#include "clips/FFProbe.h"
#include "clips/FramePositions.h"

#include <cmath>

// What ffprobe repeats of a hostile file: whatever it is, every number that is worked out from it stays in its bounds,
// and the record reads as it was written.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    ClipInfo info;
    try {
        info = FFProbe::parse(fuzz::textOf(data, size), {1'800'000'000, 0});
    } catch (const FormatError&) {
        return 0;
    } catch (const ToolError&) {
        return 0;
    }
    if (info.audioChannels < 0 || info.videoBitrate.value_or(1) <= 0 || info.width.value_or(1) <= 0)
        std::abort();
    (void)info.fpsSummary();
    (void)info.durationLabel();
    (void)ClipInfo::normalizeRate(info.frameRate);
    for (const FramePosition& position : FramePositions::of(info)) {
        if (position.frame < 0 || !std::isfinite(position.seconds) || FramePositions::seekSeconds(position, info) < 0)
            std::abort();
        (void)ContentCheck::timecodeAt(position.frame, info);
    }
    (void)ContentCheck().verdict({}, info);
    fuzz::writesStably<ClipInfo>(Json::compact(nlohmann::json(info)));
    return 0;
}
