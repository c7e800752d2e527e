#pragma once

#include "luts/Colour.h"

namespace velmora::luts {

// How scene light becomes a picture on a Rec. 709 screen, the same for every camera.
namespace Picture {

// Linear Rec. 709 light of the scene, with parts below zero where a colour lies outside; the result is code values from
// 0 to 1 for a screen of gamma 2.4.
//
// 1. Colours that the screen cannot show move towards the grey of their brightest part, along a curve that never quite
//    arrives: hue stays, and of two saturated lights the stronger stays the stronger.
// 2. One S-curve over the logarithm of light. Mid grey becomes the code value that Rec. 709 gives it, 0.409; a perfect
//    white becomes 0.80, so that there is room above it; light rolls off from there and reaches white only far beyond
//    any curve's end.
// 3. The curve takes the brightest and the dimmest part of a colour; the middle one follows half by itself and half
//    so that the hue stays. The first alone bends every bright red to yellow and blue to cyan; the second alone turns
//    flames pink.
Vec3 render(const Vec3& light);

double tone(double light); // step 2 alone, as light of the screen

} // namespace Picture

} // namespace velmora::luts
