#pragma once

#include "records/Clip.h"
#include "records/ClipContent.h"
#include "records/ClipInfo.h"
#include "records/LutUse.h"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

enum class ProxyStatus { none, skipped, unsupported, done, failed };
std::string_view name(ProxyStatus status) noexcept;
ProxyStatus proxyStatus(std::string_view name) noexcept; // `none` for anything else

// A small picture for the HTML report.
struct Thumbnail {
    std::string jpeg;  // bytes
    std::string label; // timecode of the frame
    bool operator==(const Thumbnail&) const = default;
};

// A clip in a report.
struct ClipEntry {
    Clip clip;
    std::optional<ClipInfo> info;
    std::optional<std::string> probeError;
    ProxyStatus proxyStatus = ProxyStatus::none;
    std::optional<std::string> proxyPath;
    std::optional<std::string> proxyNote;
    std::optional<double> proxySeconds;
    std::vector<Thumbnail> thumbnails; // in memory only
    std::optional<LutUse> lut;
    std::optional<ClipContent> content;
    bool operator==(const ClipEntry&) const = default;
};

void to_json(nlohmann::json& j, const ClipEntry& value);
void from_json(const nlohmann::json& j, ClipEntry& value);

} // namespace velmora
