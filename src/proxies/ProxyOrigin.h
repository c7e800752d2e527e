#pragma once

#include "base/Errors.h"
#include "records/Clip.h"
#include "records/ClipInfo.h"

#include <optional>
#include <string>

namespace velmora {

// A proxy says in its comment which clip it was made of. Cameras give the same names on every card, so that a name
// alone does not tell whether the proxy that has it already is that of this clip.
namespace ProxyOrigin {

// "Proxy of CLIP/C0001.MP4, 123456 bytes, 01:00:00:00, 2026-03-14T10:00:00Z".
std::string text(const Clip& clip, const ClipInfo& info);

// The comment of a video file; none when it has none or cannot be read. Throws ToolError when told to stop.
std::optional<std::string> read(const std::string& ffprobe, const std::string& path,
                                const IsCancelled& isCancelled = {});

// True when the file is a whole proxy of this clip. Throws ToolError when told to stop.
bool isOf(const std::string& ffprobe, const std::string& path, const Clip& clip, const ClipInfo& info,
          const IsCancelled& isCancelled = {});

} // namespace ProxyOrigin

} // namespace velmora
