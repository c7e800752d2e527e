#pragma once

#include "records/ProxySettings.h"

#include <optional>
#include <string>

namespace velmora {

// What must be right before the first frame of a proxy, as sentences for the user; none when it is.
namespace ProxyPreflight {

// The LUT file that the user names for every proxy, or for those of cameras that are not recognised; none where he
// names no file, and where no clip is looked at.
std::optional<std::string> lutInUse(const ProxySettings& settings, bool analyzeClips);

std::optional<std::string> blocking(const ProxySettings& settings, bool analyzeClips, bool lutExists);
std::optional<std::string> extraFolderBlocking(const ProxySettings& settings);

// The disk of `folder` cannot hold so many bytes of proxies: "Proxies were not rendered: not enough space on {disk}".
std::optional<std::string> spaceBlocking(const std::string& folder, const std::string& disk, std::int64_t bytes);

} // namespace ProxyPreflight

} // namespace velmora
