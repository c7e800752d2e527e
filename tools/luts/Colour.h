#pragma once

#include <array>

namespace velmora::luts {

using Vec3 = std::array<double, 3>;
using Mat3 = std::array<Vec3, 3>; // rows

Vec3 operator*(const Mat3& m, const Vec3& v);
Mat3 operator*(const Mat3& a, const Mat3& b);
Mat3 inverse(const Mat3& m);

struct Chromaticity {
    double x = 0, y = 0;
};

inline constexpr Chromaticity d65{0.3127, 0.3290};

// The primaries and the white of a camera or of a screen.
struct Gamut {
    Chromaticity red, green, blue;
    Chromaticity white = d65;

    Mat3 toXyz() const; // from linear RGB; white has Y = 1
};

inline constexpr Gamut rec709{{0.640, 0.330}, {0.300, 0.600}, {0.150, 0.060}};

// From one linear RGB to another. Where the whites differ, white goes to white (Bradford adaptation).
Mat3 conversion(const Gamut& from, const Gamut& to);

} // namespace velmora::luts
