#include "proxies/ArriColorSpace.h"

#include "base/Text.h"

#include <re2/re2.h>

#include <algorithm>

namespace velmora::ArriColorSpace {

bool isAlexa35(std::string_view camera) {
    static const RE2 expression("(?i)\\bALEXA\\s*35\\b");
    return RE2::PartialMatch(re2::StringPiece(camera.data(), camera.size()), expression);
}

std::string of(const ClipInfo& info) {
    const std::string curve = toLower(info.logEncoding.value_or(""));
    const auto holds = [&](const char* text) { return curve.find(text) != std::string::npos; };
    const auto logC3 = {"logc3", "logc ", "logc_", "logc-"};
    if (holds("logc4"))
        return "AWG4/D65/LogC4";
    if (std::ranges::any_of(logC3, holds))
        return "AWG3/D65/LogC3";
    return isAlexa35(info.camera.value_or("")) ? "AWG4/D65/LogC4" : "AWG3/D65/LogC3";
}

} // namespace velmora::ArriColorSpace
