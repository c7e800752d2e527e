#pragma once

#include "records/BackupPlace.h"
#include "records/CardKey.h"
#include "records/HashKinds.h"
#include "records/ManifestRecord.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

enum class PlanMode { full, append, repair };
std::string_view name(PlanMode mode) noexcept;

// What is known of one file before a run that is not its first.
struct FileTask {
    std::vector<bool> write;              // per destination: must be written; empty: everywhere, nowhere if `known`
    std::optional<ManifestRecord> known;  // what the destinations that are not written hold safely
    bool hashOnly = false;                // read and hash, write nowhere
    std::optional<PartCheckpoint> resume; // where the destinations that are written can continue

    bool writesTo(std::size_t destination) const {
        return !hashOnly && (write.empty() ? !known.has_value() : write[destination]);
    }
};

// What one run does; the engine runs from this record alone.
struct OffloadPlan {
    std::string source;
    SourceScan scan;
    std::string date;     // name of the date folder
    std::string cardName; // name of the card folder
    std::vector<std::string> destRoots;
    PlanMode mode = PlanMode::full;
    std::int64_t generation = 1;
    HashKinds hashKinds = HashKinds::xxh64;
    std::optional<std::string> project;
    std::int64_t notInBackup = 0;                           // files of the card that this run does not cover
    std::int64_t unverifiedEarlier = 0;                     // files of earlier runs that were never verified
    std::optional<std::vector<std::string>> fixedCardPaths; // card folders given whole
    bool resuming = false;
    bool flushFileTaken = false;         // earlier generations hold a file of the name that the flush uses
    std::vector<FileTask> tasks;         // parallel to scan.files; empty: every file is new and goes everywhere
    std::optional<CardKey> sourceMedium; // the medium of the source, where it tells what it is
    std::vector<BackupPlace> elsewhere;  // further folders of the backup, which this run does not write
    std::map<std::string, std::string> keptProxies; // proxies of the interrupted run that stay

    const FileTask& task(std::size_t file) const;

    // The card folders, one per destination.
    std::vector<std::string> cardPaths() const;
};

} // namespace velmora
