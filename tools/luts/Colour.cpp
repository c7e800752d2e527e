#include "luts/Colour.h"

namespace velmora::luts {

namespace {

// The cone-like responses in which Bradford scales one white to another.
constexpr Mat3 bradford{{{0.8951, 0.2664, -0.1614}, {-0.7502, 1.7135, 0.0367}, {0.0389, -0.0685, 1.0296}}};

Vec3 xyz(const Chromaticity& c) { return {c.x / c.y, 1, (1 - c.x - c.y) / c.y}; }

Mat3 diagonal(const Vec3& v) { return {{{v[0], 0, 0}, {0, v[1], 0}, {0, 0, v[2]}}}; }

} // namespace

Vec3 operator*(const Mat3& m, const Vec3& v) {
    Vec3 result{};
    for (int i = 0; i < 3; ++i)
        result[i] = m[i][0] * v[0] + m[i][1] * v[1] + m[i][2] * v[2];
    return result;
}

Mat3 operator*(const Mat3& a, const Mat3& b) {
    Mat3 result{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            result[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
    return result;
}

Mat3 inverse(const Mat3& m) {
    Mat3 cofactors{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            const int a = (i + 1) % 3, b = (i + 2) % 3, c = (j + 1) % 3, d = (j + 2) % 3;
            cofactors[j][i] = m[a][c] * m[b][d] - m[a][d] * m[b][c];
        }
    const double determinant = m[0][0] * cofactors[0][0] + m[0][1] * cofactors[1][0] + m[0][2] * cofactors[2][0];
    for (Vec3& row : cofactors)
        for (double& cell : row)
            cell /= determinant;
    return cofactors;
}

Mat3 Gamut::toXyz() const {
    const Vec3 r = xyz(red), g = xyz(green), b = xyz(blue);
    const Mat3 primaries{{{r[0], g[0], b[0]}, {r[1], g[1], b[1]}, {r[2], g[2], b[2]}}};
    return primaries * diagonal(inverse(primaries) * xyz(white));
}

Mat3 conversion(const Gamut& from, const Gamut& to) {
    const Vec3 source = bradford * xyz(from.white), target = bradford * xyz(to.white);
    const Mat3 scale = diagonal({target[0] / source[0], target[1] / source[1], target[2] / source[2]});
    return inverse(to.toXyz()) * inverse(bradford) * scale * bradford * from.toXyz();
}

} // namespace velmora::luts
