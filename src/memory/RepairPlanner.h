#pragma once

#include "base/Errors.h"
#include "memory/AppendPlanner.h"
#include "records/OffloadPlan.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Plans to copy files again from the card that turned bad in a finished backup. Only the card that the backup was made
// from will do: every file is read on it and compared with the record before anything is written. Nothing is written
// here.
//
// An interrupted repair leaves lines of an open generation that name nothing but files which the reports know. It is
// not continued: the next repair of the same number begins again, since it reads the state of every file anew.
struct RepairPlan {
    OffloadPlan plan;              // mode repair; its files are those that are bad on some disk
    std::int64_t rewritten = 0;    // files written on at least one disk
    std::int64_t onlyReadBack = 0; // files that stood as bad and that every disk holds well
};

namespace RepairPlanner {

// Files that are bad on one disk, by relative path, as the verification of that disk found them just now.
struct Findings {
    std::vector<std::string> defective; // changed, unreadable
    std::vector<std::string> missing;
};

// `findings` runs parallel to `cardPaths`. A file that a report calls failed counts as bad too and is written again.
// What an interrupted repair has put right already is only read back and recorded. `progress` gets the bytes read on
// the card. Throws OffloadError with a code, Cancelled, and the scan's IOError.
RepairPlan plan(const std::string& source, const std::vector<std::string>& cardPaths,
                const std::string& sourceFilesystem, const std::vector<std::string>& destFilesystems,
                const std::vector<Findings>& findings, const IsCancelled& isCancelled,
                const std::function<void(std::int64_t)>& progress = {});

// The checks that need no verification: the folders are in step, and no backup is open there. A front end makes them
// before it spends hours on reading.
AppendPlanner::Backup checkBackup(const std::vector<std::string>& cardPaths);

} // namespace RepairPlanner

} // namespace velmora
