#pragma once

#include "records/ClipInfo.h"

#include <string>
#include <string_view>

namespace velmora {

// The colour space of a clip from an ARRI camera, according to the clip's metadata.
namespace ArriColorSpace {

// "AWG4/D65/LogC4" or "AWG3/D65/LogC3", as ARRI's tool calls them: by the stated curve, else by the camera.
std::string of(const ClipInfo& info);

bool isAlexa35(std::string_view camera); // the first camera of LogC4

} // namespace ArriColorSpace

} // namespace velmora
