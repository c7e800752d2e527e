#pragma once

#include "luts/Colour.h"
#include "luts/LogCurve.h"

#include <string>
#include <vector>

namespace velmora::luts {

// How the light's place on the curve, from 0 to 1, stands in a file of video range.
enum class Levels {
    code,  // as a share of all 1023 code values, whatever the file's range
    video, // as a share of its range: 0 is code 64, 1 is code 940
};

// One look-up table of the catalogue: from a camera's log code to a picture.
struct Recipe {
    std::string id;
    std::string name;
    std::string maker;
    std::string curveName;
    std::string gamutName;
    LogCurve curve;
    Gamut gamut;
    Levels levels;

    std::string file() const { return id + ".cube"; }
    // What the table is asked with when the scene holds this linear Rec. 709 light.
    Vec3 codeOf(const Vec3& light) const;
    double codeOfCurve(double place) const;
    Vec3 render(const Vec3& code) const;
    std::string cube() const; // the whole file
};

// The tables take ten-bit code values as a decoder hands on video range: code 64 comes as 0, code 940 as 1. A
// full-range file has to be brought there first.
double fromCode(double code); // from 0 to 1 for 0 to 1023
double toCode(double video);

const std::vector<Recipe>& all();
std::string catalog(); // luts.json

} // namespace velmora::luts
