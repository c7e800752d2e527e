#pragma once

#include <string>

// Rates as text, the way every record holds them.
namespace velmora::FrameRate {

// A number as makers' tools and sidecars give it, "23.976" say, as the rate that is meant: "24000/1001", "25", "12.5".
std::string rational(double fps);

} // namespace velmora::FrameRate
