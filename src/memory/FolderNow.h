#pragma once

#include "base/Errors.h"
#include "memory/Remembered.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// A card folder that the history remembers, as it lies on its disk now. The history says where to look. What it calls
// good counts as good only while the disk holds it.
struct FolderNow {
    enum class State {
        connected,
        away,       // its disk is not mounted: nothing was looked at
        gone,       // the disk is there, the folder is not
        unreadable, // the folder or its records
    };
    // Files of one kind: how many, and the name of one of them.
    struct Files {
        std::int64_t count = 0;
        std::string first;

        void add(std::string_view path);
        bool operator==(const Files&) const = default;
    };

    std::string cardPath;
    bool besides = false; // not in the entry, but named by the records of its folders or of others
    State state = State::connected;
    std::int64_t generation = 0; // the newest of its history; 0: not known
    std::string error;           // of `unreadable`
    // When the copies were last known to be good: at the last verification without a finding, else when they were made.
    Timestamp lastKnown;
    std::optional<HistoryVerification> failedVerification; // and nothing has mended it since
    std::string forgotten;                                 // a gap in the history that may hide one; empty: none

    Files damaged;           // copies that are missing on the disk, or have another size or time than recorded
    Files failed;            // copies that the record calls failed
    Files neverCame;         // the run that records them was cancelled, or lost the card, before it had read them
    Files lost;              // failed or never copied, and no longer on the card
    Files unverified;        // copies that were never read back
    Files lacking;           // files of the card that the history knows, and the record does not as they are now
    bool repairOpen = false; // the newest run was a repair that was not finished

    // What makes the folder no good backup, in words that name it; empty when there is nothing.
    std::string problem() const;
    // True when something is wrong that only a repair puts right.
    bool needsRepair() const {
        return damaged.count > 0 || failed.count > 0 || failedVerification || repairOpen || !forgotten.empty();
    }
    // True when an append would bring or prove something.
    bool needsAppend() const { return neverCame.count > 0 || unverified.count > 0 || lacking.count > 0; }

private:
    std::string forgottenProblem() const;
};

namespace FoldersNow {

// What was found on the card, for comparing.
struct Card {
    const std::vector<SourceFile>& files;
    const std::vector<SourceFile>& newFiles; // those that the history does not know
    std::optional<std::string> filesystem;
};

// The folders of `entry`, looked at on all disks at once, and after them the folders that only records name. Reads
// reports and folders, no copy. `history` is all that is remembered: what verifications found may stand in any entry.
// `isAway` says that the disk of a path is not mounted. Throws Cancelled; every other problem stands in the result.
std::vector<FolderNow> look(const HistoryEntry& entry, const Remembered& history, const Card& card,
                            const std::function<bool(const std::string&)>& isAway, const IsCancelled& isCancelled);

} // namespace FoldersNow

} // namespace velmora
