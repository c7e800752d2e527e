#include "proxies/RawPicture.h"

#include "proxies/FrameLines.h"

namespace velmora::RawPicture {

double linesWanted(const ClipInfo& info, const ProxySettings& settings) {
    const auto lines = static_cast<double>(settings.height);
    const std::int64_t height = info.height.value_or(0);
    const auto crop = FrameLines::crop(settings, info.width.value_or(0), height);
    return crop && (*crop)[3] > 0 ? lines * static_cast<double>(height) / static_cast<double>((*crop)[3]) : lines;
}

} // namespace velmora::RawPicture
