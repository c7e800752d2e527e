#pragma once

#include "base/Errors.h"
#include "memory/FolderState.h"
#include "memory/Unfinished.h"
#include "records/BackupPlace.h"
#include "records/CardKey.h"
#include "records/OffloadPlan.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Finds what a crash left in the folders of one card and decides, file by file and disk by disk, what is still to do.
// Reads reports, chains, manifests and directories; writes nothing.
//
// Which generation is open on a disk: one that the manifest or a marked report names and the ASC MHL chain does not
// hold, else the last committed one if its report still says that its verification is not finished. A folder that holds
// nothing at all is one that a copy claimed and never got to: its first generation is open.
namespace ResumePlanner {

// What the folders of one backup tell of interrupted runs.
struct Findings {
    std::optional<Unfinished> unfinished;
    // A run that had done all but its last records got to the end on some disks only. The others come first: their
    // records are made final as they are, and then the folders are looked at anew.
    struct Lagging {
        Unfinished unfinished;
        std::vector<std::string> cardPaths;
    };
    std::optional<Lagging> lagging;
    std::vector<BackupPlace> places; // every folder that the first line of a run, or an open report, names
    std::optional<CardKey> medium;   // the card of the newest run that says which it was
};

// Reads all folders at once. With nothing open neither `unfinished` nor `lagging`; never both. The lowest open
// generation g counts. A disk that stands before g agrees: the run never got to it. One whose report of g is
// final, good or bad, agrees in two cases: the others need their last records only, or its report names all files that
// they have of g. Everything else throws OffloadError, naming the disk that is behind.
Findings look(const std::vector<std::string>& paths, const FolderStates& folders);
std::optional<Unfinished> find(const std::vector<std::string>& paths, const FolderStates& folders); // its `unfinished`

// The refusal that names a disk which is behind the others, and what brings it in step.
OffloadError behind(const std::string& cardPath, std::int64_t generation);

// The highest generation in the chain; 0 without one. Throws OffloadError for a chain that cannot be read: nobody knows
// what is finished there.
std::int64_t committed(const std::string& cardPath);
// True when the chain holds nothing although the newest report is final. A run makes its report final after it wrote
// the chain, so this folder has lost its history; no run died there.
bool chainLost(FolderState& folder);
std::string reportPath(const std::string& cardPath, std::int64_t generation);

// The size of what lies under a file's final name on a disk; none when there is no file.
using SizeOnDisk = std::function<std::optional<std::int64_t>(std::size_t dest, const SourceFile& file)>;

// A file that every disk holds complete and durable, by one and the same record, is known and not read again. A file
// that only some disks hold is known too: the card must give the others the same bytes. Where records disagree every
// disk gets the file anew, since nobody can say which of them is right.
std::vector<FileTask> decide(const Unfinished& unfinished, const std::vector<SourceFile>& files,
                             const SizeOnDisk& sizeOnDisk, bool localTime, std::int64_t blockSize);

// The longest run of blocks that every destination which needs the file has durably, by checkpoints that agree block
// for block. None when one of them has nothing usable. The bytes themselves are proved by reading the part files when
// the copy begins.
std::optional<PartCheckpoint> commonCheckpoint(const Unfinished& unfinished, const SourceFile& file,
                                               const std::vector<bool>& write, bool localTime, std::int64_t blockSize);

} // namespace ResumePlanner

} // namespace velmora
