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

// Three pictures tell a clip from the others of its card. One near the start, after the slate and the hand on the
// camera; one in the middle; one near the end, before what is filmed while somebody searches the button. Near means a
// tenth of the clip. The last one is counted from the end, and half a second earlier: there a file's own count of its
// frames is least to be trusted, and a seek behind the last frame gives none. Fewer where there are fewer frames; only
// the first frame where the length is not known.
namespace FramePositions {

std::vector<FramePosition> of(const ClipInfo& info);

// Where to seek so that the next frame is the wanted one. Always within the clip.
double seekSeconds(const FramePosition& position, const ClipInfo& info);

} // namespace FramePositions

} // namespace velmora
