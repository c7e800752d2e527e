#include "proxies/FrameLines.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace velmora::FrameLines {

namespace {

bool wanted(const ProxySettings& settings) { return settings.frameAspect && *settings.frameAspect > 0; }

std::int64_t even(double value) { return static_cast<std::int64_t>(std::trunc(value / 2)) * 2; }

} // namespace

double scale(const ProxySettings& settings) {
    constexpr double tooSmall = 0.1;
    return settings.frameScale > tooSmall ? std::min(settings.frameScale, 1.0) : 1.0;
}

std::optional<std::array<std::int64_t, 4>> crop(const ProxySettings& settings, std::int64_t width,
                                                std::int64_t height) {
    if (!wanted(settings) || width <= 0 || height <= 0)
        return std::nullopt;
    const double w = static_cast<double>(width) * scale(settings);
    const double h = static_cast<double>(height) * scale(settings);
    const std::int64_t cropWidth = even(std::min(w, h * *settings.frameAspect));
    const std::int64_t cropHeight = even(std::min(w / *settings.frameAspect, h));
    return std::array{(width - cropWidth) / 2, (height - cropHeight) / 2, cropWidth, cropHeight};
}

std::optional<std::string> label(const ProxySettings& settings) {
    if (!wanted(settings))
        return std::nullopt;
    std::string text = fmt::format("{:.2f}", *settings.frameAspect);
    if (scale(settings) < 1.0)
        text += fmt::format(" {:.0f} %", scale(settings) * 100);
    return text;
}

} // namespace velmora::FrameLines
