#include "luts/Picture.h"

#include <algorithm>
#include <cmath>

namespace velmora::luts::Picture {

namespace {

constexpr double screenGamma = 2.4;
constexpr double midGrey = 0.18;
constexpr double contrast = 1.45;
constexpr double midGreyCode = 0.409; // 1.099 * 0.18^0.45 - 0.099

// How far a part lies below the brightest, as a share of it: 1 is the edge of what the screen shows. Up to `start`
// nothing moves.
constexpr double start = 0.80;
constexpr double power = 1.3;

double compressed(double distance) {
    if (distance <= start)
        return distance;
    const double beyond = (distance - start) / (1 - start);
    return start + (1 - start) * beyond / std::pow(1 + std::pow(beyond, power), 1 / power);
}

Vec3 intoGamut(const Vec3& light, double most, double least) {
    const double distance = (most - least) / most;
    const double scale = distance > 0 ? compressed(distance) / distance : 1;
    Vec3 result{};
    for (int i = 0; i < 3; ++i)
        result[i] = most - (most - light[i]) * scale;
    return result;
}

} // namespace

double tone(double light) {
    static const double mid = std::pow(midGreyCode, screenGamma);
    static const double half = (1 - mid) / mid; // of the S-curve: where light is shown as half of white
    if (light <= 0)
        return 0;
    const double bent = std::pow(light / midGrey, contrast);
    return bent / (bent + half);
}

Vec3 render(const Vec3& scene) {
    const auto [low, high] = std::minmax_element(scene.begin(), scene.end());
    if (*high <= 0)
        return {};
    const Vec3 light = intoGamut(scene, *high, *low);
    const auto [least, most] = std::minmax_element(light.begin(), light.end());
    const double dark = tone(*least), bright = tone(*most);
    Vec3 result{};
    for (int i = 0; i < 3; ++i) {
        const double alone = tone(light[i]);
        const double ofHue = *most > *least ? dark + (bright - dark) * (light[i] - *least) / (*most - *least) : alone;
        result[i] = std::clamp(std::pow(std::max(0.0, (alone + ofHue) / 2), 1 / screenGamma), 0.0, 1.0);
    }
    return result;
}

} // namespace velmora::luts::Picture
