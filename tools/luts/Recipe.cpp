#include "luts/Recipe.h"

#include "luts/Picture.h"

#include <fmt/format.h>

namespace velmora::luts {

namespace {

constexpr int gridPoints = 33; // a third of a stop apart; what lies between is a straight line

constexpr Gamut wide3{{0.6840, 0.3130}, {0.2210, 0.8480}, {0.0861, -0.1020}};
constexpr Gamut wide4{{0.7347, 0.2653}, {0.1424, 0.8576}, {0.0991, -0.0308}};
constexpr Gamut redWide{{0.780308, 0.304253}, {0.121595, 1.493994}, {0.095612, -0.084589}};
constexpr Gamut bmdWide5{
    {0.7177215, 0.3171181}, {0.2280410, 0.8615690}, {0.1005841, -0.0820452}, {0.3127170, 0.3290312}};
constexpr Gamut sGamut3{{0.730, 0.280}, {0.140, 0.855}, {0.100, -0.050}};
constexpr Gamut sGamut3Cine{{0.766, 0.275}, {0.225, 0.800}, {0.089, -0.087}};

} // namespace

double fromCode(double code) { return (code * 1023 - 64) / 876; }
double toCode(double video) { return (video * 876 + 64) / 1023; }

const std::vector<Recipe>& all() {
    static const std::vector<Recipe> recipes{
        {"arri-logc4-awg4", "ARRI LogC4 to Rec. 709", "ARRI", "LogC4", "ARRI Wide Gamut 4", logC4, wide4,
         Levels::video},
        {"arri-logc3-awg3", "ARRI LogC3 to Rec. 709", "ARRI", "LogC3 EI 800", "ARRI Wide Gamut 3", logC3, wide3,
         Levels::video},
        {"red-log3g10-rwg", "RED Log3G10 to Rec. 709", "RED", "Log3G10", "REDWideGamutRGB", log3G10, redWide,
         Levels::video},
        {"bmd-film-gen5", "Blackmagic Film Gen 5 to Rec. 709", "Blackmagic Design", "Film Generation 5",
         "Blackmagic Wide Gamut Gen 5", filmGen5, bmdWide5, Levels::code},
        {"sony-slog3-sgamut3", "Sony S-Log3 S-Gamut3 to Rec. 709", "Sony", "S-Log3", "S-Gamut3", sLog3, sGamut3,
         Levels::code},
        {"sony-slog3-sgamut3cine", "Sony S-Log3 S-Gamut3.Cine to Rec. 709", "Sony", "S-Log3", "S-Gamut3.Cine", sLog3,
         sGamut3Cine, Levels::code},
    };
    return recipes;
}

double Recipe::codeOfCurve(double place) const { return levels == Levels::video ? place : fromCode(place); }

Vec3 Recipe::codeOf(const Vec3& light) const {
    Vec3 code = conversion(rec709, gamut) * light;
    for (double& part : code)
        part = codeOfCurve(curve.toCode(part));
    return code;
}

Vec3 Recipe::render(const Vec3& code) const {
    Vec3 light{};
    for (int i = 0; i < 3; ++i)
        light[i] = curve.toLight(levels == Levels::video ? code[i] : toCode(code[i]));
    return Picture::render(conversion(gamut, rec709) * light);
}

std::string Recipe::cube() const {
    std::string text = fmt::format("TITLE \"{}\"\n# Takes video range: code 64 of 1023 is 0, code 940 is 1.\n"
                                   "LUT_3D_SIZE {}\n",
                                   name, gridPoints);
    const double step = 1.0 / (gridPoints - 1);
    for (int b = 0; b < gridPoints; ++b)
        for (int g = 0; g < gridPoints; ++g)
            for (int r = 0; r < gridPoints; ++r) {
                const Vec3 shown = render({r * step, g * step, b * step});
                // Five digits: coarser than any difference between two machines' arithmetic, finer than sixteen bits
                // of the picture need.
                text += fmt::format("{:.5f} {:.5f} {:.5f}\n", shown[0], shown[1], shown[2]);
            }
    return text;
}

std::string catalog() {
    std::string text;
    for (const Recipe& r : all())
        text += fmt::format("{}  {{\n    \"curve\": \"{}\",\n    \"file\": \"{}\",\n    \"gamut\": \"{}\",\n"
                            "    \"id\": \"{}\",\n    \"maker\": \"{}\",\n    \"name\": \"{}\"\n  }}",
                            text.empty() ? "[\n" : ",\n", r.curveName, r.file(), r.gamutName, r.id, r.maker, r.name);
    return text + "\n]\n";
}

} // namespace velmora::luts
