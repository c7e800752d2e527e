#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Timecodes name frames, HH:MM:SS:FF; they do not measure time. At 29.97 and 59.94 frames a second they lag behind the
// clock; drop-frame timecode, written with ";", leaves out names (two, or four, at each full minute but every tenth),
// so that it keeps up. Pure functions that bear any number.
namespace velmora::Timecode {

// "24000/1001" or "25" as a number; none unless it is finite.
std::optional<double> fps(std::string_view text);

// Two digits four times, the last two behind ":", ";" or ".". The numbers are not judged.
bool isValid(std::string_view timecode) noexcept;
// Valid, with ";" at the end, at a rate that drops names. At 30 or 60 exactly nothing has to be dropped.
bool isDropFrame(std::string_view timecode, double fps) noexcept;

// The number of the frame since 00:00:00:00; none when the timecode is not valid.
std::optional<std::int64_t> toFrames(std::string_view timecode, double fps) noexcept;
// The hours go on counting beyond a day. A negative number counts as 0.
std::string fromFrames(std::int64_t frames, double fps, bool dropFrame, char separator);
// The timecode of a frame so many later, in the same manner. After a day it begins anew, as a camera's does at
// midnight. None when the timecode is not valid.
std::optional<std::string> add(std::string_view timecode, std::int64_t frames, double fps);
// A count of frames as a duration.
std::string length(std::int64_t frames, double fps);

} // namespace velmora::Timecode
