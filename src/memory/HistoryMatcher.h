#pragma once

#include "memory/FolderNow.h"
#include "records/HistoryEntry.h"
#include "records/SourceFile.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

enum class HistoryMatchKind {
    identical,   // every file of the card is in the record, unchanged
    newFiles,    // what the record holds is unchanged, and there is more
    changed,     // a recorded file has another size or time, or nothing of the record is left
    notCompared, // the fingerprints differ and no list was there to compare with
};

// What became of a remembered card since its backup.
struct HistoryMatch {
    HistoryEntry entry;
    HistoryMatchKind kind = HistoryMatchKind::notCompared;
    std::vector<SourceFile> newFiles;
    std::int64_t newBytes = 0;
    std::vector<std::string> changed; // relative paths
    std::int64_t removed = 0;         // recorded files that are no longer on the card
    std::int64_t uncopied = 0;        // names on the card that no backup can hold; the inspector counts them
    std::vector<FolderNow> folders;   // of the entry, in its order; empty when the inspector did not look at them
};

namespace HistoryMatcher {

// `candidateFiles` is the stored list of `candidate`, if there is one. Files are compared by size and time only.
HistoryMatch match(const std::vector<SourceFile>& scan, const std::string& fingerprint, const HistoryEntry& candidate,
                   const std::optional<std::vector<SourceFile>>& candidateFiles,
                   const std::optional<std::string>& filesystem);

} // namespace HistoryMatcher

} // namespace velmora
