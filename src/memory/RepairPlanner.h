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
    std::int64_t onlyReadBack = 0; // files that stood as bad or unproved and that every disk holds well
    bool finishes = false;         // a repair that died, whose report may be there already
    SourceScan card;               // everything on the card
};

namespace RepairPlanner {

// Files that are bad on one disk, by relative path, as the verification of that disk found them just now.
struct Findings {
    std::vector<std::string> defective; // changed, unreadable
    std::vector<std::string> missing;
};

// The checks that need no reading of files: the folders are in step, and no backup is open there. A front end makes
// them before it spends hours on reading.
struct Checked {
    AppendPlanner::Backup backup;
    ResumePlanner::Findings found;       // with an interrupted repair, if there is one
    std::optional<OffloadReport> settle; // of a repair that had done all but its records: to be committed as it is
};
Checked check(const std::vector<std::string>& cardPaths, const FolderStates& folders);

// `findings` runs parallel to the folders. A file that a report calls failed counts as bad too and is written again. A
// file that was never verified is compared with the card and read back; so is a file that an interrupted repair has put
// right. A plan without files says that nothing can be mended from this card. On a card that nothing tells from another
// with the same names, sizes and times, every file of the backup is compared. `progress` gets the bytes read on the
// card. Throws OffloadError with a code, Cancelled, and the scan's IOError.
RepairPlan plan(const AppendPlanner::Ask& ask, const Checked& checked, const std::vector<Findings>& findings,
                const FolderStates& folders, const IsCancelled& isCancelled,
                const std::function<void(std::int64_t)>& progress = {});

} // namespace RepairPlanner

} // namespace velmora
