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

// Something on the card that cannot be copied: its name, or that of a folder above it, cannot stand in any record, or
// it is a folder that cannot be listed. It ends as a failed file in the report, so that the card is not safe to format.
struct UncopiedItem {
    std::string path;  // as on the card: any bytes; for comparing, never for a record
    std::string shown; // the same as valid text
    std::int64_t size = 0;
    Timestamp mtime;
    bool isFolder = false;
    std::string error; // why, as the source error of the report
    bool operator==(const UncopiedItem&) const = default;
};

// What a card holds.
struct SourceScan {
    std::string root;
    std::vector<SourceFile> files;      // sorted by relPath: the order of the copy, the reports and the ASC MHL
    std::vector<std::string> dirs;      // sorted
    std::vector<std::string> skipped;   // in the order in which they were met; valid text, escaped where it must be
    std::vector<UncopiedItem> uncopied; // sorted by path

    std::int64_t totalBytes() const;
};

} // namespace velmora
