#include "records/FrameRate.h"

#include <cmath>
#include <fmt/format.h>

namespace velmora::FrameRate {

namespace {
constexpr double near = 0.01; // makers cut rates to two or three digits
}

std::string rational(double fps) {
    const double whole = std::round(fps);
    if (whole >= 1 && std::abs(fps - whole) <= near)
        return fmt::format("{:.0f}", whole);
    const double slowed = std::round(fps * 1.001); // television's rates run by 1000/1001 slower than their names
    if (slowed >= 1 && std::abs(fps - slowed * 1000 / 1001) <= near)
        return fmt::format("{:.0f}/1001", slowed * 1000);
    return fmt::format("{:.6g}", fps);
}

} // namespace velmora::FrameRate
