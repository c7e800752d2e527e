#pragma once

#include "base/Errors.h"
#include "memory/AppendPlan.h"
#include "memory/CardRecord.h"
#include "memory/Unfinished.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Adds what is new on a card to an earlier backup, on all of its disks or on none: the disks must be exactly in step,
// and every doubt is a refusal with its own code and sentence. Reads, compares and refuses; writes nothing.
namespace AppendPlanner {

// An earlier backup whose folders were checked against each other.
struct Backup {
    std::vector<std::string> paths; // card folders, without a trailing "/"
    std::vector<std::string> roots;
    std::string date;
    std::string cardName;
    std::vector<CardRecord> records; // parallel to `paths`
    std::int64_t nextGeneration = 1;
};

// What a user is told to check a backup with.
inline constexpr std::string_view verifyHint = "Verify backup (window toolbar; on the command line: velmora verify)";

// `destFilesystems` runs parallel to `cardPaths`. Throws OffloadError with a code, Cancelled, and the scan's IOError.
AppendPlan plan(const std::string& source, const std::vector<std::string>& cardPaths,
                const std::string& sourceFilesystem, const std::vector<std::string>& destFilesystems,
                std::int64_t blockSize, const IsCancelled& isCancelled);

// The interrupted generation of the folders, if there is one. A folder that is not there is named as such.
std::optional<Unfinished> findUnfinished(const std::vector<std::string>& paths);

// An interrupted generation that is nothing but a repair: each disk has lines only for files that its reports know.
bool isOpenRepair(const Unfinished& unfinished, const std::vector<CardRecord>& records);

// With `unfinishedGeneration` that generation does not count, on any disk.
Backup checkBackup(const std::vector<std::string>& paths, std::optional<std::int64_t> unfinishedGeneration);

// The name of a path's disk for the user's eye.
std::string disk(const std::string& path);
std::string when(Timestamp date); // "11-16 07:25", local time
// One line of a conflict: the card's file against size and time in the backup.
std::string conflict(const SourceFile& file, std::int64_t size, Timestamp modified);

// The refusal for files that do not match; `folder` is where a full copy would go.
OffloadError stopped(const std::vector<std::string>& lines, const std::string& folder);

} // namespace AppendPlanner

} // namespace velmora
