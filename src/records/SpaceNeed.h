#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace velmora {

// Bytes that a job puts on a disk.
struct SpaceNeed {
    std::int64_t card = 0;
    std::int64_t proxy = 0;
    std::int64_t report = 0; // reports, lists, manifest, and what file systems add

    std::int64_t total() const; // stays at the largest number instead of overflowing
    // "52 GB cards, proxy ~3.1 GB, reports and overhead 12 MB", without what is nothing.
    std::string partsText() const;
    SpaceNeed& operator+=(const SpaceNeed& other);
    bool operator==(const SpaceNeed&) const = default;
};

// What the job adds to the card itself.
struct SpaceExtra {
    std::int64_t proxy = 0;
    std::int64_t report = 0;
    bool proxyOnAllDestinations = false;
    std::optional<std::string> proxyFolder; // a place of its own for proxies
    bool operator==(const SpaceExtra&) const = default;
};

// One folder that receives something.
struct SpacePlace {
    std::string path;
    std::string label;
    SpaceNeed need;
    bool operator==(const SpacePlace&) const = default;
};

// What all places on one volume need together.
struct VolumeDemand {
    std::string volume;
    std::string label;
    SpaceNeed need;
    bool operator==(const VolumeDemand&) const = default;
};

enum class SpaceSeverity { warning, blocking };

struct SpaceProblem {
    SpaceSeverity severity = SpaceSeverity::warning;
    std::string label;
    SpaceNeed need;
    std::int64_t free = 0;
    std::string text;
    bool operator==(const SpaceProblem&) const = default;
};

struct SpaceLine {
    std::string label;
    SpaceNeed need;
    std::int64_t free = 0;
    bool operator==(const SpaceLine&) const = default;
};

struct SpaceTarget {
    std::string root;
    std::string volume;
    std::string label;
    bool operator==(const SpaceTarget&) const = default;
};

} // namespace velmora
