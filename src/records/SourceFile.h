#pragma once

#include "base/Timestamp.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

// One file of a card as the scan saw it.
struct SourceFile {
    std::string relPath; // relative to the source root, "/" separated
    std::int64_t size = 0;
    Timestamp mtime;

    // 100-ns ticks since the year 1, the nanoseconds cut off.
    std::int64_t ticks() const;
    bool operator==(const SourceFile&) const = default;
};

// What a card holds.
struct SourceScan {
    std::string root;
    std::vector<SourceFile> files;    // sorted by relPath: the order of the copy, the reports and the ASC MHL
    std::vector<std::string> dirs;    // sorted
    std::vector<std::string> skipped; // in the order in which they were met

    std::int64_t totalBytes() const;
};

} // namespace velmora
