#pragma once

#include "base/Timestamp.h"
#include "records/HistoryEntry.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// A part of the card history that cannot be read. What it held may deny a promise, for as long as the copies of a
// backup have not been read again.
struct HistoryGap {
    std::string path;
    Timestamp written; // nothing that it held is newer than this
    std::string error; // why it cannot be read; empty for a damaged file that was set aside

    // "the card history was damaged and set aside as …"
    std::string text() const;
    bool operator==(const HistoryGap&) const = default;
};

// What the card history remembers, and what it may have forgotten.
struct Remembered {
    std::vector<HistoryEntry> entries;              // newest first
    std::vector<HistoryVerification> verifications; // of card folders, whether an entry names them or not
    std::vector<HistoryGap> gaps;

    // What verifications of a card folder found; none when nothing was ever recorded. Of two records that disagree the
    // newer one counts. A disk is recognised by its serial where both sides have one, wherever it is mounted.
    std::optional<HistoryVerification> verificationOf(const std::string& cardPath,
                                                      const std::optional<std::string>& volumeSerial) const;
    // The youngest gap that may hide something of copies which were last read at `lastRead`; null when none does.
    const HistoryGap* hides(const std::optional<Timestamp>& lastRead) const&;
    const HistoryGap* hides(const std::optional<Timestamp>& lastRead) const&& = delete; // the pointer would dangle
};

// A list of what verifications found, one record a folder.
namespace Verifications {

// The record is about this folder.
bool isOf(const HistoryVerification& record, const std::string& cardPath,
          const std::optional<std::string>& volumeSerial);
// Takes in the newest finding about a folder; `mark.clean` or `mark.failed` is set.
void enter(std::vector<HistoryVerification>& records, const HistoryVerification& mark);
// Keeps the newest `most` records. Records of folders that were found good go first, since losing them denies nothing.
void bound(std::vector<HistoryVerification>& records, std::size_t most);

} // namespace Verifications

} // namespace velmora
