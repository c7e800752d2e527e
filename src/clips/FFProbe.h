#pragma once

#include "records/ClipInfo.h"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// What ffprobe says of a video file. Files on a card are hostile, and so is what ffprobe repeats of them: a field that
// cannot be read stays empty. Pure functions, any thread.
namespace FFProbe {

// The arguments to read all about one file. Its path is absolute, so that a name like "-x" or "concat:" is only a name.
std::vector<std::string> arguments(const std::string& path);

// Throws ToolError when the document is no object, FormatError when it is no JSON. `now` bounds the date of recording.
ClipInfo parse(std::string_view output, Timestamp now);

// "ARRI ALEXA Mini" of "ARRI" and "ALEXA Mini", and of "ARRI" and "ARRI ALEXA Mini" as well.
std::optional<std::string> camera(const std::optional<std::string>& make, const std::optional<std::string>& model);
// The first tag that holds the name of a tape; the case of the tags does not count.
std::optional<std::string> reel(const nlohmann::json& tags);
// A time as cameras write it, UTC where no zone is stated.
std::optional<Timestamp> recordedDate(std::string_view text);

} // namespace FFProbe

} // namespace velmora
