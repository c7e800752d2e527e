#pragma once

#include <optional>
#include <string_view>

namespace velmora::Timecode {

// "24000/1001" or "25" as a number; none unless it is finite.
std::optional<double> fps(std::string_view text);

} // namespace velmora::Timecode
