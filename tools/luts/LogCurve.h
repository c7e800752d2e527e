#pragma once

namespace velmora::luts {

// A maker's log curve. Scene light: 0.18 is mid grey, 1 a perfect white in the same light. Code: 0 to 1 is 0 to 1023 of
// ten bits, however the file calls its range.
struct LogCurve {
    double (*toCode)(double light);
    double (*toLight)(double code);
};

extern const LogCurve logC3;    // ARRI, exposure index 800
extern const LogCurve logC4;    // ARRI
extern const LogCurve log3G10;  // RED
extern const LogCurve filmGen5; // Blackmagic Design
extern const LogCurve sLog3;    // Sony

} // namespace velmora::luts
