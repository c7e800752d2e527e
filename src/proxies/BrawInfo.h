#pragma once

#include "records/ClipInfo.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// What `braw-decode --info` says of a clip, as JSON.
struct BrawInfo {
    std::int64_t width = 0; // of the frames that are piped at the scale that was asked for
    std::int64_t height = 0;
    std::int64_t sourceWidth = 0; // as recorded
    std::int64_t sourceHeight = 0;
    double fps = 0;
    std::int64_t frames = 0;
    std::string timecode;
    std::string camera;
    std::optional<std::string> gamma;
    std::optional<std::string> gamut;
    std::optional<std::int64_t> colorScienceGen;
    std::optional<double> sensorRate;

    // Throws ToolError: "unreadable metadata" and what is wrong.
    static BrawInfo parse(std::string_view json);
    ClipInfo clipInfo() const;
};

} // namespace velmora
