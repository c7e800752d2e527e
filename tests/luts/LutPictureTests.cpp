#include "luts/Picture.h"
#include "luts/Recipe.h"

#include <cmath>

namespace velmora::luts {
namespace {

constexpr double codeStep = 1.0 / 255;

std::string kept(const std::string& name) {
    std::ifstream file(std::string(LUTS_FOLDER "/") + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A table as it is kept, asked as a renderer asks it: with straight lines inside the six pyramids of a cell.
class Table {
public:
    explicit Table(const Recipe& recipe) {
        std::istringstream text(kept(recipe.file()));
        for (std::string line; std::getline(text, line);)
            if (line.starts_with("LUT_3D_SIZE "))
                size_ = std::stoul(line.substr(12));
            else if (Vec3 v; std::sscanf(line.c_str(), "%lf %lf %lf", &v[0], &v[1], &v[2]) == 3)
                points_.push_back(v);
        EXPECT_GE(size_, 33u);
        EXPECT_EQ(points_.size(), size_ * size_ * size_) << recipe.id;
    }
    const std::vector<Vec3>& points() const { return points_; }
    Vec3 at(const Vec3& code) const {
        std::array<std::size_t, 3> cell{}, order{0, 1, 2}, corner{};
        Vec3 inside{};
        for (std::size_t i = 0; i < 3; ++i) {
            const double place = std::clamp(code[i], 0.0, 1.0) * static_cast<double>(size_ - 1);
            corner[i] = cell[i] = std::min(static_cast<std::size_t>(place), size_ - 2);
            inside[i] = place - static_cast<double>(cell[i]);
        }
        std::ranges::sort(order, [&](std::size_t a, std::size_t b) { return inside[a] > inside[b]; });
        Vec3 result = point(corner);
        for (const std::size_t axis : order) { // from the near corner to the far one, the longest way first
            const Vec3 before = point(corner);
            ++corner[axis];
            for (std::size_t i = 0; i < 3; ++i)
                result[i] += inside[axis] * (point(corner)[i] - before[i]);
        }
        return result;
    }

private:
    const Vec3& point(const std::array<std::size_t, 3>& at) const {
        return points_[at[0] + size_ * (at[1] + size_ * at[2])];
    }
    std::size_t size_ = 2;
    std::vector<Vec3> points_;
};

Vec3 grey(double light) { return {light, light, light}; }

// Light of a hue, from grey (0) to the edge of a gamut (1).
Vec3 coloured(double hue, double saturation, double light) {
    Vec3 rgb{};
    for (int i = 0; i < 3; ++i) {
        const double k = std::fmod(5 - 2 * i + hue / 60, 6.0);
        rgb[i] = light - light * saturation * std::max(0.0, std::min({k, 4 - k, 1.0}));
    }
    return rgb;
}

double hueOf(const Vec3& c) {
    const auto [low, high] = std::minmax({c[0], c[1], c[2]});
    const double spread = high - low;
    if (high == c[0])
        return std::fmod(60 * (c[1] - c[2]) / spread + 360, 360);
    return high == c[1] ? 60 * (c[2] - c[0]) / spread + 120 : 60 * (c[0] - c[1]) / spread + 240;
}

TEST(LogCurves, AreThoseOfTheMakers) {
    struct Case {
        LogCurve curve;
        double black, midGrey, white90, white, bright; // of light 0, 0.18, 0.9, 1, 10
    };
    for (const Case& c : {Case{logC3, 0.092809, 0.391007, 0.559432, 0.570632, 0.816917},
                          {logC4, 0.092864, 0.278396, 0.417959, 0.427519, 0.640390},
                          {log3G10, 0.091551, 0.333333, 0.483361, 0.493449, 0.716305},
                          {filmGen5, 0.092466, 0.383562, 0.521384, 0.530490, 0.730222},
                          {sLog3, 0.092864, 0.410557, 0.584453, 0.596027, 0.850654}}) {
        const std::array lights{0.0, 0.18, 0.9, 1.0, 10.0};
        const std::array codes{c.black, c.midGrey, c.white90, c.white, c.bright};
        for (std::size_t i = 0; i < lights.size(); ++i)
            EXPECT_NEAR(c.curve.toCode(lights[i]), codes[i], 1e-6) << lights[i];
        for (double code = 0; code <= 1; code += 0.001)
            EXPECT_NEAR(c.curve.toCode(c.curve.toLight(code)), code, 2e-6) << codes[1];
    }
}

TEST(Luts, KeptOnesAreWhatTheRecipeMakes) {
    EXPECT_EQ(kept("luts.json"), catalog());
    for (const Recipe& recipe : all())
        EXPECT_TRUE(kept(recipe.file()) == recipe.cube()) << recipe.id << ": run make_luts data/luts";
}

TEST(Luts, GiveOnePictureOfOneSceneWhateverTheCamera) {
    for (const Recipe& recipe : all()) {
        SCOPED_TRACE(recipe.id);
        const Table table(recipe);
        const auto shown = [&](const Vec3& light) { return table.at(recipe.codeOf(light)); };
        for (const Vec3& point : table.points())
            for (const double part : point)
                ASSERT_TRUE(part >= 0 && part <= 1);

        EXPECT_NEAR(shown(grey(0.18))[1], 0.409, codeStep / 2) << "mid grey is that of Rec. 709";
        EXPECT_NEAR(shown(grey(0.9))[1], 0.795, 2 * codeStep);
        EXPECT_NEAR(shown(grey(1))[1], 0.816, 2 * codeStep) << "a perfect white leaves room above it";
        EXPECT_LT(shown(grey(0))[1], 3 * codeStep);
        for (const Vec3& light : {Vec3{0.45, 0.28, 0.2}, {0.08, 0.045, 0.03}, {0.6, 0.03, 0.03}, {0.02, 0.05, 0.9}})
            for (std::size_t i = 0; i < 3; ++i)
                EXPECT_NEAR(shown(light)[i], Picture::render(light)[i], 5 * codeStep) << light[0];

        double before = -1;
        for (double code = 0; code <= 1; code += 1.0 / 4096) {
            const Vec3 out = table.at(grey(code));
            EXPECT_NEAR(out[0], out[1], codeStep / 2) << code;
            EXPECT_NEAR(out[2], out[1], codeStep / 2) << code;
            ASSERT_GE(out[1], before - 1e-12) << code;
            before = out[1];
        }
        EXPECT_GT(before, 0.99) << "the curve's end is white";
        // No patch of the highlights is flat before the end: a third of a stop can be told from the next.
        for (double light = 0.18; recipe.curve.toCode(light * 1.26) < 0.83; light *= 1.26)
            EXPECT_GT(shown(grey(light * 1.26))[1] - shown(grey(light))[1], 1e-4) << light;
    }
}

TEST(Luts, KeepTheOrderOfHuesAndOfSaturations) {
    for (const Recipe& recipe : all()) {
        SCOPED_TRACE(recipe.id);
        const Table table(recipe);
        // To the edge of Rec. 709, and beyond it to that of the camera.
        for (const bool camera : {false, true})
            for (const double light : {0.05, 0.18, 0.8, 4.0}) {
                std::vector<double> spread(120, 0);
                for (const double saturation : {0.2, 0.5, 0.8, 0.9, 1.0}) {
                    double turned = 0, last = 0;
                    for (std::size_t i = 0; i < spread.size(); ++i) {
                        const Vec3 colour = coloured(3.0 * static_cast<double>(i), saturation, light);
                        Vec3 code = recipe.codeOf(colour);
                        if (camera)
                            for (std::size_t part = 0; part < 3; ++part)
                                code[part] = recipe.codeOfCurve(recipe.curve.toCode(colour[part]));
                        const Vec3 out = table.at(code);
                        const double hue = hueOf(out),
                                     now = *std::ranges::max_element(out) - *std::ranges::min_element(out);
                        const double turn = i == 0 ? 0 : std::remainder(hue - last, 360);
                        EXPECT_GE(turn, 0) << "light " << light << ", saturation " << saturation << ", hue " << 3 * i;
                        EXPECT_GT(now, spread[i] - (camera ? 1.1 * codeStep : 0))
                            << "light " << light << ", saturation " << saturation;
                        turned += turn;
                        last = hue;
                        spread[i] = now;
                    }
                    EXPECT_LT(turned, 360);
                }
            }
    }
}

} // namespace
} // namespace velmora::luts
