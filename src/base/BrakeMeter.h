#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace velmora {

// What limits the copy just now.
struct Brake {
    std::int64_t element = 0;          // 0 is the card reader, N the Nth destination
    double mbps = 0;                   // MB/s that it moves (10^6 bytes)
    std::optional<double> utilization; // share of its link's speed, when that is known

    // The link itself is the cause: so close to its speed that nothing behind it can be blamed.
    bool linkFull() const { return utilization && *utilization >= 0.85; }
    bool operator==(const Brake&) const = default;
};

// Finds the element that everything else waits for, from the progress counters alone: blocks pile up in front of a
// destination that cannot keep up; when they pile up nowhere, the card reader is the slow one. Not thread-safe.
class BrakeMeter {
public:
    // `linkMBps`: speed of each element's link, the card reader first, then the destinations; may be shorter.
    BrakeMeter(std::int64_t chunkBytes, std::int64_t bufferCount, std::vector<std::optional<double>> linkMBps,
               double windowSeconds = 4.0);

    std::optional<Brake> add(double seconds, std::int64_t readBytes, const std::vector<std::int64_t>& writtenBytes);
    void reset() { samples_.clear(); }

private:
    struct Sample {
        double seconds;
        std::int64_t read;
        std::vector<std::int64_t> written;
    };
    std::size_t slowest() const;
    std::optional<Brake> brakeOf(std::size_t element, double span) const;

    double threshold_;
    double windowSeconds_;
    std::vector<std::optional<double>> linkMBps_;
    std::deque<Sample> samples_;
};

} // namespace velmora
