#pragma once

#include "records/ClipInfo.h"
#include "records/ProxySettings.h"

#include <cstdint>
#include <optional>

namespace velmora {

// How much of a RAW picture has to be decoded for a proxy.
namespace RawPicture {

// How many lines the whole picture needs, so that the part inside the frame lines has as many as the proxy.
double linesWanted(const ClipInfo& info, const ProxySettings& settings);

} // namespace RawPicture

} // namespace velmora
