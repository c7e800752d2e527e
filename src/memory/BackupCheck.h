#pragma once

#include "memory/CardRecord.h"
#include "memory/FolderState.h"
#include "records/BackupPlace.h"
#include "records/HistoryEntry.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// How a whole card stands in its backup, over all generations and all disks. Facts only: what may be promised on them
// is decided elsewhere, together with what else is known.
struct BackupCheck {
    BackupState state;
    std::int64_t notInBackup = 0;     // files of the card that some disk does not record
    std::vector<std::string> changed; // files of the card that a disk records with another size or time
    std::int64_t ofEarlierRuns = 0;   // files of the card that only earlier generations than the given one record
    std::vector<std::string> lost;    // recorded as failed on some disk, and not on the card any more
    // A sentence for each further folder of this backup that lacks something, could not be looked at, or did not pass
    // its last verification.
    std::vector<std::string> elsewhere;
    std::vector<std::string> alsoIn;   // the further folders that lack nothing
    std::optional<Timestamp> alsoRead; // as `lastRead`, of these
    std::optional<std::string> error;  // the records of a disk cannot be read: nothing was checked

    // What the history is told of the backup as a whole.
    std::vector<SourceFile> covered;             // the files of the card that every disk records as they are now
    std::vector<HistoryGeneration> generations;  // of the first disk, ascending
    std::shared_ptr<const OffloadReport> newest; // of the first disk; null when nothing was read
    std::int64_t failedFiles = 0;                // recorded as failed, on the card or not
    std::optional<Timestamp> lastRead;           // when the oldest verification among the newest of each file ended

    // `records` are those of the folders that the run worked on. `places` are further folders of the backup: the
    // reports there are read, unless `folders` knows them. `generation` is that of the run that has just ended; none
    // when none was written. `localTime` as for comparing file times. Throws Cancelled.
    static BackupCheck of(const SourceScan& card, const std::vector<CardRecord>& records,
                          const std::vector<BackupPlace>& places, std::optional<std::int64_t> generation,
                          bool localTime, const FolderStates& folders = FolderStates());
};

} // namespace velmora
