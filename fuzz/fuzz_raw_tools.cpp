#include "Stable.h"
#include "base/Errors.h"
#include "base/Text.h"
#include "proxies/ArriMeta.h"
#include "proxies/ArriRawBackend.h"
#include "proxies/BrawBackend.h"
#include "proxies/FrameCount.h"
#include "proxies/Intermediate.h"
#include "proxies/R3DBackend.h"
#include "proxies/RedMeta.h"
#include "records/Timecode.h"

#include <cmath>

namespace {

using namespace velmora;

void mustBeSane(const ClipInfo& info) {
    const std::int64_t width = info.width.value_or(1), height = info.height.value_or(1);
    if (width <= 0 || height <= 0 || info.frames.value_or(0) < 0 || info.audioChannels < 0 ||
        !std::isfinite(info.duration.value_or(0)) || !std::isfinite(info.squeeze.value_or(1)))
        std::abort();
    const auto fps = info.frameRate ? Timecode::fps(*info.frameRate) : 25.0;
    if (!fps || *fps <= 0 || (info.timecode && !Timecode::isValid(*info.timecode)))
        std::abort();
    const std::string record = Json::compact(nlohmann::json(info));
    fuzz::writesStably<ClipInfo>(record);
    // What is worked out from it: of the whole picture, and of a part of it.
    ProxySettings settings;
    for (const double aspect : {0.0, 2.39}) {
        settings.frameAspect = aspect;
        const ARRIRAWBackend::Picture picture = ARRIRAWBackend::picture(info, settings);
        if (picture.width < 0 || picture.height < 0 ||
            Intermediate::proresBytes(picture.width, picture.height, info.frames.value_or(0)) < 0)
            std::abort();
        (void)BRAWBackend::scale(height, 1080);
        (void)R3DBackend::resolution(height, 1080);
    }
    const std::int64_t frames = info.frames.value_or(0);
    if (const std::int64_t start = BRAWBackend::startFrame(info.duration.value_or(0), *fps, frames);
        start < 0 || start > frames)
        std::abort();
}

} // namespace

// What the makers' tools print about a hostile clip. The first byte chooses the tool.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::string_view text = fuzz::textOf(data, size).substr(1);
    try {
        switch (*data % 4) {
        case 0:
            mustBeSane(BrawInfo::parse(text).clipInfo());
            break;
        case 1:
            mustBeSane(RedMeta::parse(text));
            break;
        case 2:
            mustBeSane(ArriMeta::parse(text));
            break;
        default:
            if (FrameCount::parse(text, 24).value_or(1) < 1)
                std::abort();
            (void)ARRIRAWBackend::logTail(text);
            (void)BRAWBackend::explain(ToolError("braw-decode", 1, std::string(text)), "/lib",
                                       BRAWBackend::Asked::frames);
        }
    } catch (const ToolError&) {
        return 0;
    }
    return 0;
}
