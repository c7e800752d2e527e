#include "proxies/ProxyPreflight.h"

#include "base/Errors.h"
#include "base/Text.h"
#include "platform/IO.h"
#include "proxies/LutOption.h"
#include "proxies/LutResolver.h"

#include <fmt/format.h>

namespace velmora::ProxyPreflight {

std::optional<std::string> lutInUse(const ProxySettings& settings, bool analyzeClips) {
    if (!settings.enabled || !analyzeClips)
        return std::nullopt;
    const LutMode mode = LutResolver::effectiveMode(settings);
    if (mode == LutMode::custom)
        return settings.lutPath;
    const bool fallsBackOnFile = mode == LutMode::automatic && LutOption::isCubePath(settings.lutFallback.value_or(""));
    return fallsBackOnFile ? settings.lutFallback : std::nullopt;
}

std::optional<std::string> blocking(const ProxySettings& settings, bool analyzeClips, bool lutExists) {
    const auto path = lutInUse(settings, analyzeClips);
    if (!path || lutExists)
        return std::nullopt;
    return fmt::format("LUT not found: {} — choose another one or remove it.", *path);
}

std::optional<std::string> extraFolderBlocking(const ProxySettings& settings) {
    if (!settings.enabled || !settings.extraFolder || settings.extraFolder->empty())
        return std::nullopt;
    try {
        if (IO::isFolder(*settings.extraFolder))
            return std::nullopt;
    } catch (const IOError&) {
        // A disk that cannot even answer that holds no proxies.
    }
    return fmt::format("Folder for proxies is not available: {}", *settings.extraFolder);
}

std::optional<std::string> spaceBlocking(const std::string& folder, const std::string& disk, std::int64_t bytes) {
    const std::int64_t free = IO::capacity(folder).free;
    if (bytes <= free)
        return std::nullopt;
    return fmt::format("Proxies were not rendered: not enough space on {} (they need about {}, free {})", disk,
                       formatBytes(bytes), formatBytes(free));
}

} // namespace velmora::ProxyPreflight
