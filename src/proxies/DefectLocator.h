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

// While a proxy is made, ffmpeg reports a defect but not its frame: decoders run ahead, encoders hold frames back, and
// the frame count comes only now and then. So ffprobe decodes the part around the defect once more and tells what the
// decoder said of each frame. That is done for clips with a defect only.
namespace DefectLocator {

// Puts the frame of the first defect and its timecode into `content`, and whether the defect is in the sound. What it
// cannot find, or not before a cancel, stays as it was.
void refine(ClipContent& content, const std::string& path, const ClipInfo& info, const ExternalTools& tools,
            const IsCancelled& isCancelled);

// The frame of the first defect by ffprobe's answer; none when no decoder complained. `rate` in frames a second.
std::optional<std::int64_t> firstDefect(std::string_view answer, double rate);

} // namespace DefectLocator

} // namespace velmora
