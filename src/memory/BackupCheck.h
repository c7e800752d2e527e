#pragma once

#include "memory/CardRecord.h"
#include "records/HistoryEntry.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// How a whole card stands in its backup, over all generations and all disks: what the promises at the end of an append
// or a repair rest on, since the report of that run tells of its own files only.
struct BackupCheck {
    BackupState state;
    std::int64_t notInBackup = 0; // files of the card that no report names, or names with another size or time
    // A sentence for each further folder of this backup, by its reports, that lacks something or could not be looked
    // at.
    std::vector<std::string> elsewhere;
    std::optional<std::string> error; // the records of a disk cannot be read: nothing was checked

    // What the history is told of the backup as a whole.
    std::vector<SourceFile> covered;             // the files of the card that every disk records as they are now
    std::vector<HistoryGeneration> generations;  // of the first disk, ascending
    std::shared_ptr<const OffloadReport> newest; // of the first disk; null when nothing was read
    std::int64_t failedFiles = 0;                // recorded as failed, on the card or not

    bool safeToEject() const { return !error && state.failed == 0 && notInBackup == 0; }
    bool safeToFormat() const { return safeToEject() && state.unverified == 0 && elsewhere.empty(); }
    // Every file of the backup was read back and found good, as far as the card still has it.
    bool allVerified() const {
        return !error && state.failed == 0 && state.unverified == 0 && failedFiles == 0 && elsewhere.empty();
    }
    // The sentences for the user, the gravest first; none when all is well.
    std::vector<std::string> messages() const;

    // Reads the reports in the card folders. `card` is everything on the card; `localTime` as for comparing file times.
    static BackupCheck of(const SourceScan& card, const std::vector<std::string>& cardPaths, bool localTime);
};

} // namespace velmora
