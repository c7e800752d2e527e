#include "proxies/BrawInfo.h"

#include "base/Errors.h"
#include "base/JsonShape.h"
#include "base/Text.h"
#include "records/Clip.h"
#include "records/FrameRate.h"
#include "records/Timecode.h"

namespace velmora {

namespace {

constexpr double fastest = 10000; // frames a second
constexpr std::int64_t widest = 1 << 16;
constexpr std::int64_t longest = 1'000'000'000; // frames

bool isRate(double fps) { return fps > 0 && fps <= fastest; }

std::optional<std::string> stated(const std::string& text) {
    std::string trimmed = trim(text);
    return trimmed.empty() ? std::nullopt : std::optional(std::move(trimmed));
}

using namespace JsonShape;

constexpr std::tuple shape{
    required("width", &BrawInfo::width, 1, widest),
    required("height", &BrawInfo::height, 1, widest),
    required("sourceWidth", &BrawInfo::sourceWidth, 1, widest),
    required("sourceHeight", &BrawInfo::sourceHeight, 1, widest),
    required("fps", &BrawInfo::fps),
    required("frames", &BrawInfo::frames, 0, longest),
    required("timecode", &BrawInfo::timecode),
    required("camera", &BrawInfo::camera),
    field("gamma", &BrawInfo::gamma),
    field("gamut", &BrawInfo::gamut),
    field("colorScienceGen", &BrawInfo::colorScienceGen),
    field("sensorRate", &BrawInfo::sensorRate),
};

} // namespace

BrawInfo BrawInfo::parse(std::string_view json) try {
    auto info = JsonShape::decoded<BrawInfo>(Json::parse(json), shape, JsonFields::Reading::strict);
    if (!isRate(info.fps))
        throw FormatError("the value of \"fps\" is no rate");
    return info;
} catch (const FormatError& error) {
    throw ToolError("braw-decode", 0, std::string("unreadable metadata: ") + error.what());
}

ClipInfo BrawInfo::clipInfo() const {
    ClipInfo info;
    info.codec = label(ClipFormat::braw);
    info.width = sourceWidth;
    info.height = sourceHeight;
    info.frameRate = FrameRate::rational(fps);
    info.frames = frames;
    info.duration = static_cast<double>(frames) / Timecode::fps(*info.frameRate).value_or(fps);
    if (Timecode::isValid(timecode))
        info.timecode = timecode;
    info.camera = stated(camera);
    info.gamma = stated(gamma.value_or(""));
    info.gamut = stated(gamut.value_or(""));
    info.colorScienceGen = colorScienceGen;
    if (sensorRate && isRate(*sensorRate))
        info.captureFrameRate = FrameRate::rational(*sensorRate);
    return info;
}

} // namespace velmora
