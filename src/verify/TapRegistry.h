#pragma once

#include "records/Clip.h"

#include <array>
#include <string_view>

namespace velmora {

// How the reading of a clip can verify it.
enum class TapMode {
    none,    // not at all: it is read plainly
    http,    // one file that ffmpeg reads from a range server
    preRead, // its decoder wants real paths: the files are verified just before it reads them
};

// Pure functions.
namespace TapRegistry {

inline constexpr std::array<std::string_view, 3> httpExtensions = {"mov", "mp4", "mxf"}; // in lower case

TapMode mode(const Clip& clip);
// A path whose extension is one of the above.
bool isHttp(std::string_view path);

} // namespace TapRegistry

} // namespace velmora
