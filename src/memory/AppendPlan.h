#pragma once

#include "memory/CardRecord.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// What an append, or the finishing of an interrupted run, will do.
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
    std::int64_t later = 0;      // files too late for the interrupted generation: the next append takes them
    std::vector<FileTask> tasks; // parallel to newFiles, or empty
    // Per folder: part files of a dead run whose files are no longer on the card. They move aside.
    std::vector<std::vector<std::string>> leftParts;
    std::optional<CardKey> sourceMedium;
    bool sameMedium = false;            // the card is the very medium of the earlier runs, by its serial and size
    std::vector<BackupPlace> elsewhere; // folders of the backup that were not named
    std::shared_ptr<const OffloadReport> interrupted; // report of the run that is finished; null: it left none
    std::vector<CardRecord> records; // of the named folders, without the generation that is being finished
    // Set when an interrupted run has done all but its last records: they are to be committed as they are, and then the
    // backup is planned anew. Nothing else of the plan is filled in.
    std::optional<OffloadReport> settle;

    std::int64_t newBytes() const;
    OffloadPlan toPlan() const;
};

} // namespace velmora
