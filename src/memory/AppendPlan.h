#pragma once

#include "records/ManifestRecord.h"
#include "records/OffloadPlan.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// What an append, or the finishing of an interrupted run, will do. The lists "per file" run parallel to `newFiles`.
struct AppendPlan {
    std::string source;
    std::vector<std::string> cardPaths;
    std::vector<std::string> destRoots;
    std::string date;
    std::string cardName;
    std::int64_t generation = 1;
    SourceScan fullScan; // everything on the card
    std::vector<SourceFile> newFiles;
    std::vector<std::string> newDirs;
    std::int64_t unverifiedEarlier = 0; // files of earlier generations that were not verified everywhere
    std::vector<std::string> hashAlgorithms;
    std::optional<std::string> project;
    bool resuming = false;
    bool flushFileTaken = false;
    std::int64_t later = 0; // files that the interrupted generation cannot take in any more: left for the next append
    std::optional<std::vector<std::vector<bool>>> write;
    std::optional<std::vector<std::optional<ManifestRecord>>> known;
    std::optional<std::vector<std::optional<PartCheckpoint>>> resume;

    std::int64_t newBytes() const;
    OffloadPlan toPlan() const;
};

} // namespace velmora
