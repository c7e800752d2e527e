#pragma once

#include "memory/CardRecord.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// How a whole card stands in its backup, over all generations and all disks: what the promises at the end of an append
// or a repair rest on, since the report of that run tells of its own files only.
struct BackupCheck {
    BackupState state;
    std::int64_t notInBackup = 0;     // files of the card that no report names, or names with another size or time
    std::optional<std::string> error; // the records of a disk cannot be read: nothing was checked
    std::vector<SourceFile> covered;  // files of the card that every disk's reports name as they are on the card

    bool safeToEject() const { return !error && state.failed == 0 && notInBackup == 0; }
    bool safeToFormat() const { return safeToEject() && state.unverified == 0; }
    // The sentences for the user, the gravest first; none when all is well.
    std::vector<std::string> messages() const;

    // Reads the reports in the card folders. `card` is everything on the card; `localTime` as for comparing file times.
    static BackupCheck of(const SourceScan& card, const std::vector<std::string>& cardPaths, bool localTime);
};

} // namespace velmora
