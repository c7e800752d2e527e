#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace velmora {

// Where the time of a copy went, in seconds of the clock on the wall, from the first file to the end of the last.
struct CopyTimes {
    struct Destination {
        double writing = 0;       // in calls that write
        std::int64_t written = 0; // bytes
        double idle = 0;          // its queue had nothing to do …
        // … while the reader could have read the source, but waited for a buffer, the hasher or a processor instead of
        // the card. A better engine could win this time back.
        double idleNeedlessly = 0;
    };

    double wall = 0;
    double readingSource = 0;
    std::int64_t read = 0; // bytes that the card really gave
    double waitingForBuffers = 0;
    std::vector<Destination> destinations;

    // The destination that took the most time in writing. All others should wait for it, or for the card.
    std::size_t slowest() const noexcept {
        std::size_t at = 0;
        for (std::size_t d = 1; d < destinations.size(); ++d)
            if (destinations[d].writing > destinations[at].writing)
                at = d;
        return at;
    }
    // Share of the wall time in which the slowest destination was needlessly idle.
    double idleShare() const noexcept {
        return destinations.empty() || wall <= 0 ? 0 : destinations[slowest()].idleNeedlessly / wall;
    }
};

} // namespace velmora
