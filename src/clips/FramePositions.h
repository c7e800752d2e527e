#pragma once

#include "records/ClipInfo.h"

#include <cstdint>
#include <vector>

namespace velmora {

// Where in a clip its small pictures are taken.
struct FramePosition {
    double seconds = 0; // since the start of the clip; `fromEnd`: before its end
    std::int64_t frame = 0;
    bool fromEnd = false;
    bool operator==(const FramePosition&) const = default;
};

// A clip's three pictures tell it from the others of its card: one near the start, behind the slate and the hand on the
// camera; the middle; and one near the end, in front of what is filmed while the button is searched. A tenth of the
// clip each. The last one is counted from the end, and half a second earlier: there a file's own count of its frames is
// least to be trusted, and a seek behind the last frame gives none. Fewer where there are fewer frames; only the first
// frame where the length is not known.
namespace FramePositions {

std::vector<FramePosition> of(const ClipInfo& info);

// Where to seek to so that the next frame is the one of that position. Within the clip.
double seekSeconds(const FramePosition& position, const ClipInfo& info);

} // namespace FramePositions

} // namespace velmora
