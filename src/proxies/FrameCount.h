#pragma once

#include "base/Errors.h"
#include "records/ClipInfo.h"
#include "records/ExternalTools.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The number of frames of a file with one video track, by its times: MXF files do not state it.
namespace FrameCount {

// None when there is no ffprobe, or it does not know. Throws ToolError "cancelled" alone.
std::optional<std::int64_t> of(const ExternalTools& tools, const std::string& path, double fps,
                               const IsCancelled& isCancelled);
// ffprobe's answer to that question.
std::optional<std::int64_t> parse(std::string_view json, double fps);

// A maker's tool may report success after it broke off. Throws ToolError in the name of `tool` when the file that it
// wrote is shorter than the clip.
void check(const ExternalTools& tools, const std::string& path, const ClipInfo& clip, const std::string& tool,
           const IsCancelled& isCancelled);

} // namespace FrameCount

} // namespace velmora
