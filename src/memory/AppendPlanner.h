#pragma once

#include "base/Errors.h"
#include "memory/AppendPlan.h"
#include "memory/CardRecord.h"
#include "memory/FolderState.h"
#include "memory/ResumePlanner.h"
#include "memory/Unfinished.h"
#include "records/HistoryEntry.h"

#include <cstdint>
#include <memory>
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

// A run that the card history remembers.
struct PastRun {
    Timestamp finished;
    std::vector<BackupPlace> places; // its card folders
};
// The runs that went into folders of these names, on these disks or others.
std::vector<PastRun> pastRuns(const std::vector<HistoryEntry>& entries, const std::vector<std::string>& cardPaths);

// What the job knows before it plans.
struct Ask {
    std::string source;
    std::vector<std::string> cardPaths;
    std::string sourceFilesystem;
    std::vector<std::string> destFilesystems; // parallel to `cardPaths`
    std::int64_t blockSize = 0;
    bool verify = true;       // the run reads back: copies that were never proved are proved by it
    bool compareCard = false; // every file of the card is read and held against its copies, also those of earlier runs
    std::optional<CardKey> medium;          // of the source, where it is a whole volume that tells what it is
    std::optional<CardKey> mediumInHistory; // of the card that the history knows for these folders
    std::vector<PastRun> pastRuns;
};

// Throws OffloadError with a code, Cancelled, and the scan's IOError. With nothing to do it throws NothingNew.
AppendPlan plan(const Ask& ask, const FolderStates& folders);

// The refusal `nothingNew`. Its plan describes the backup and has no files to copy.
class NothingNew : public OffloadError {
public:
    explicit NothingNew(AppendPlan plan);
    const AppendPlan& plan() const noexcept { return *plan_; }

private:
    std::shared_ptr<const AppendPlan> plan_;
};

// What the folders tell of interrupted runs. A folder that is not there is named as such.
ResumePlanner::Findings lookAt(const std::vector<std::string>& paths, const FolderStates& folders);

// The folders of the backup beside those of `records`.
std::vector<BackupPlace> elsewhere(const std::vector<CardRecord>& records, const ResumePlanner::Findings& found,
                                   const std::vector<PastRun>& pastRuns, const FolderStates& folders);

// True when the card in the reader is the medium that the newest record names, or else the history; false when either
// is unknown. Throws `appendOtherCard` when both are known and differ.
bool sameMedium(const std::vector<CardRecord>& records, const ResumePlanner::Findings& found,
                const std::optional<CardKey>& now, const std::optional<CardKey>& inHistory);

// The records of an interrupted run that had done all its work, as they are to stand in these folders; none when the
// run was not that far, or one of the folders is no column of its report.
std::optional<OffloadReport> settleable(const std::optional<Unfinished>& unfinished,
                                        const std::vector<std::string>& paths);

// The same for disks that lag behind others of the backup. Throws when their records name no such folder.
OffloadReport settleLagging(const ResumePlanner::Findings::Lagging& lagging);

// An interrupted generation that is nothing but a repair: each disk has lines only for files that its reports know.
bool isOpenRepair(const Unfinished& unfinished, const std::vector<CardRecord>& records);

// Leaves out `unfinishedGeneration`, on every disk.
Backup checkBackup(const std::vector<std::string>& paths, std::optional<std::int64_t> unfinishedGeneration,
                   const FolderStates& folders);

// The name of a path's disk for the user's eye.
std::string disk(const std::string& path);
std::string when(Timestamp date); // "11-16 07:25", local time
// One line of a conflict: the card's file against size and time in the backup.
std::string conflict(const SourceFile& file, std::int64_t size, Timestamp modified);

// The refusal for files that do not match; `folder` is where a full copy would go.
OffloadError stopped(const std::vector<std::string>& lines, const std::string& folder);

} // namespace AppendPlanner

} // namespace velmora
