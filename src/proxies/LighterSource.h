#pragma once

#include "records/ClipInfo.h"
#include "records/LutUse.h"
#include "records/ProxySettings.h"

#include <optional>
#include <string>

namespace velmora {

// A proxy that would be no lighter than its source helps nobody.
namespace LighterSource {

// Why the source serves as its own proxy; none when a proxy is to be made, and when that cannot be told.
std::optional<std::string> reason(const ClipInfo& info, const ProxySettings& settings, const LutUse& lut);

// "no proxy — the original is lighter ({reason})"
std::optional<std::string> note(const ClipInfo& info, const ProxySettings& settings, const LutUse& lut);

} // namespace LighterSource

} // namespace velmora
