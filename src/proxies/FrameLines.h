#pragma once

#include "records/ProxySettings.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace velmora {

// The part of the picture that the cinematographer framed for.
namespace FrameLines {

// The `frameScale` that is used: at most 1, and 1 instead of 0.1 or less, which nobody means.
double scale(const ProxySettings& settings);

// x, y, width, height: the largest rectangle of the aspect inside the picture, times the scale, with even sides, in the
// middle. None without frame lines and for a picture of unknown size.
std::optional<std::array<std::int64_t, 4>> crop(const ProxySettings& settings, std::int64_t width, std::int64_t height);

// "2.39", "2.39 90 %"; none without frame lines.
std::optional<std::string> label(const ProxySettings& settings);

} // namespace FrameLines

} // namespace velmora
