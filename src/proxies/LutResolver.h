#pragma once

#include "proxies/LutCatalog.h"
#include "records/Clip.h"
#include "records/ClipInfo.h"
#include "records/LutUse.h"
#include "records/ProxySettings.h"

#include <optional>
#include <string>

namespace velmora {

// Which LUT a clip gets, and why. Never fails: where no LUT can be given, the reason says so. Any thread.
namespace LutResolver {

// A stored mode as it is; without one a custom LUT that is set wins, and the camera decides otherwise.
LutMode effectiveMode(const ProxySettings& settings);

struct Detected {
    std::optional<std::string> id; // of a built-in LUT
    std::string reason;
    bool operator==(const Detected&) const = default;
};

// What the clip says of its own curve. `info` is empty for a clip that could not be read. Looks for a Sony sidecar
// beside `clipPath`, the full path of the clip.
Detected detect(const Clip& clip, const std::optional<ClipInfo>& info, const std::string& clipPath);
Detected braw(const std::optional<ClipInfo>& info);

LutUse resolve(const Clip& clip, const std::optional<ClipInfo>& info, const std::string& clipPath,
               const ProxySettings& settings, const LutCatalog& catalog);

} // namespace LutResolver

} // namespace velmora
