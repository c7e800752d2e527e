#pragma once

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

// What one run does; the engine runs from this record alone. The lists "per file" run parallel to scan.files.
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
    bool flushFileTaken = false; // earlier generations hold a file of the name that the flush uses
    std::optional<std::vector<std::vector<bool>>> write; // per file, per destination: must be written; none: all
    std::optional<std::vector<std::optional<ManifestRecord>>> known;  // per file: already safely written
    std::optional<std::vector<bool>> hashOnly;                        // per file: read and hash, write nowhere
    std::optional<std::vector<std::optional<PartCheckpoint>>> resume; // per file: where to continue
    std::map<std::string, std::string> keptProxies;                   // proxies of the interrupted run that stay

    // The card folders, one per destination.
    std::vector<std::string> cardPaths() const;
};

} // namespace velmora
