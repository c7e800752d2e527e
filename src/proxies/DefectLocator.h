#pragma once

#include "base/Errors.h"
#include "records/ClipContent.h"
#include "records/ClipInfo.h"
#include "records/ExternalTools.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// While a proxy is made, ffmpeg says that something is wrong, but not of which frame: decoders run ahead, encoders hold
// frames back, and its count comes now and then. So the stretch around is decoded once more by ffprobe, which tells of
// each frame what its decoder said. That is done for clips with a defect only.
namespace DefectLocator {

// Puts the frame of the first defect, and its timecode, into `content`; and that it is the sound, where it is. What
// cannot be found, or not before a cancel, stays as it was heard.
void refine(ClipContent& content, const std::string& path, const ClipInfo& info, const ExternalTools& tools,
            const IsCancelled& isCancelled);

// The frame, of ffprobe's answer; none when no decoder complained. `rate` in frames a second.
std::optional<std::int64_t> firstDefect(std::string_view answer, double rate);

} // namespace DefectLocator

} // namespace velmora
