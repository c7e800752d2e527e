#pragma once

#include "records/ClipInfo.h"
#include "records/ProxySettings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The texts that ffmpeg takes after `-vf`. ffmpeg runs in the folder of the renderer's temporary files, and every file
// that a graph names lies there under a harmless name: a path of the user never has to pass ffmpeg's quoting.
namespace FilterGraph {

// Crop to the frame lines; empty where there are none.
std::string crop(const ProxySettings& settings);

// Scales to `height` lines with square pixels, whatever shape they have in the source.
std::string scale(std::int64_t height);

// The LUT in 16-bit RGB. `lut`: file name of a .cube. Full-range code values are first put where video levels are,
// which is what the LUTs are made for.
std::string lut(std::string_view lut, bool needsPreMap);
// `fullRangeSource`: FrameSource says so.
bool needsPreMap(const ClipInfo& info, bool fullRangeSource, bool hasLut);

// Frames a second that still round to 1. At a slower rate there are no timecodes.
constexpr double slowestTimecode = 0.5;

struct BurnIn {
    std::optional<std::string> font = {};      // file name; without a font no text is drawn
    std::optional<std::string> labelFile = {}; // file name of the clip's name, in UTF-8
    std::size_t labelLetters = 0;
    std::optional<std::string> shortFile = {}; // of a shorter one, for pictures too narrow for the first
    std::optional<std::string> timecode = {};  // of the first frame
    std::string rate = "25";                   // of the timecode
};
// A dark strip at the bottom with the clip's name on the left and the running timecode on the right.
std::string burnIn(const BurnIn& burnIn, std::int64_t height);

// Whether the file does not say how its colours are coded. ffmpeg would then assume standard definition, and every
// proxy of such a camera would be a shade off.
bool assumesRec709(const ClipInfo& info);

struct Video {
    bool alreadyCropped = false;
    bool assumesRec709 = false;
    std::optional<std::string> lut = {}; // file name
    bool needsPreMap = false;
    std::optional<BurnIn> burnIn = {};
    std::string end = {}; // VideoEncoder::filterEnd
};
std::string video(const ProxySettings& settings, const Video& video);

// Of a small picture, 180 lines high.
std::string thumbnail(const std::optional<std::string>& lut, bool needsPreMap = false, bool assumesRec709 = false);

// A clip's name for the burn-in: valid UTF-8 without control characters, cut in the middle to so many letters.
std::string label(std::string_view clipName, std::size_t most = 64);
std::size_t letters(std::string_view label);
// How many letters fit beside the timecode in the narrowest picture that cameras make.
std::size_t safeLetters(std::int64_t height);

} // namespace FilterGraph

} // namespace velmora
