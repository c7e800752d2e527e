#include "luts/LogCurve.h"

#include <cmath>
#include <numbers>

namespace velmora::luts {

namespace {

namespace c3 {
constexpr double cut = 0.010591, a = 5.555556, b = 0.052272, c = 0.247190, d = 0.385537, e = 5.367655, f = 0.092809;

double toCode(double x) { return x > cut ? c * std::log10(a * x + b) + d : e * x + f; }
double toLight(double y) { return y > e * cut + f ? (std::pow(10, (y - d) / c) - b) / a : (y - f) / e; }
} // namespace c3

namespace c4 {
constexpr double a = (262144.0 - 16) / 117.45, b = (1023.0 - 95) / 1023, c = 95.0 / 1023;
const double s = 7 * std::numbers::ln2 * std::exp2(7 - 14 * c / b) / (a * b);
const double t = (std::exp2(14 * (-c / b) + 6) - 64) / a;

double toCode(double x) { return x >= t ? (std::log2(a * x + 64) - 6) / 14 * b + c : (x - t) / s; }
double toLight(double y) { return y >= 0 ? (std::exp2(14 * (y - c) / b + 6) - 64) / a : y * s + t; }
} // namespace c4

namespace red {
constexpr double a = 0.224282, b = 155.975327, shift = 0.01, g = 15.1927;

double toCode(double x) {
    const double z = x + shift;
    return z < 0 ? g * z : a * std::log10(b * z + 1);
}
double toLight(double y) { return (y < 0 ? y / g : (std::pow(10, y / a) - 1) / b) - shift; }
} // namespace red

namespace bmd {
constexpr double cut = 0.005, a = 0.08692876065491224, b = 0.005494072432257808, c = 0.5300133392291939,
                 d = 8.283605932402494, e = 0.09246575342465753;

double toCode(double x) { return x < cut ? d * x + e : a * std::log(x + b) + c; }
double toLight(double y) { return y < d * cut + e ? (y - e) / d : std::exp((y - c) / a) - b; }
} // namespace bmd

namespace sony {
constexpr double cut = 0.01125, black = 95, knee = 171.2102946929;

double toCode(double x) {
    return (x >= cut ? 420 + 261.5 * std::log10((x + 0.01) / 0.19) : x * (knee - black) / cut + black) / 1023;
}
double toLight(double y) {
    const double code = y * 1023;
    return code >= knee ? std::pow(10, (code - 420) / 261.5) * 0.19 - 0.01 : (code - black) * cut / (knee - black);
}
} // namespace sony

} // namespace

const LogCurve logC3{c3::toCode, c3::toLight};
const LogCurve logC4{c4::toCode, c4::toLight};
const LogCurve log3G10{red::toCode, red::toLight};
const LogCurve filmGen5{bmd::toCode, bmd::toLight};
const LogCurve sLog3{sony::toCode, sony::toLight};

} // namespace velmora::luts
