#pragma once

#include "base/Errors.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velmora {

// The card's own files in a card folder on a disk, as they lie there now: what a planner compares records with. Left
// out are the folders of this program, the system's junk, and the file of the device flush.
class BackupFolder {
public:
    // Throws as the scan of a card does.
    BackupFolder(const std::string& cardPath, const IsCancelled& isCancelled);

    // Null when no file of that name is there; names are compared as all records compare them, or byte for byte.
    const SourceFile* file(std::string_view relPath, bool exactly = false) const;
    bool hasFolder(std::string_view relPath) const;
    const std::vector<SourceFile>& files() const noexcept { return scan_.files; }
    // Names on the disk that no record can hold, for display.
    const std::vector<std::string>& unrecordable() const noexcept { return unrecordable_; }

private:
    SourceScan scan_;
    std::vector<std::string> unrecordable_;
    std::unordered_multimap<std::string, std::size_t> byKey_;
};

} // namespace velmora
