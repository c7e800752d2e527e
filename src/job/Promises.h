#pragma once

#include "memory/BackupCheck.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The one place that decides what may be said of a card: "safe to eject", "safe to format", and whether its backup as a
// whole is verified. It is told everything that is known before a run, during it and after it. Whatever was not looked
// at, or could not be, denies; nothing else may say yes. docs/promises.md has the table of who denies what.
namespace Promises {

// What a run has found out. The defaults are those of a run of which nothing is known: they deny.
struct Evidence {
    // The run.
    bool ran = false;                  // it came to its end, or had nothing to do
    bool cardSwapped = false;          // another card was in the reader, or none
    bool readBack = false;             // every copy of this run was read back, or it made none
    bool pending = false;              // they are read back later, when the card may already leave
    std::int64_t failedFiles = 0;      // in the report of this run
    std::vector<std::string> problems; // a record that does not stand, a disk that was not flushed or is not there now

    // The card, looked at once more when the run had ended. Not looked at after a cancel or a swap.
    bool cardSeen = false;
    std::optional<std::string> cardError; // it could not be looked at
    std::int64_t filesAdded = 0;          // it holds more than the run took in; counted without `whole`
    std::vector<std::string> changed;     // files that differ now from what the run took in; likewise

    // The backup as a whole; none after a first copy, which its report tells everything of.
    std::optional<BackupCheck> whole;
    std::int64_t notCompared = 0; // files of the card that this run neither copied nor compared, on a card that nothing
                                  // tells from another with the same names, sizes and times
    std::string compareCommand;   // the command that compares them
    std::vector<std::string>
        failedVerifications;              // of one of the folders, later than its last good one: a sentence each
    std::optional<std::string> forgotten; // a sentence: the history may have lost findings about copies not read since
    bool onOtherVolume = false;           // some destination that took part lies on another volume than the card
};

struct Verdict {
    bool safeToEject = false;
    bool safeToFormat = false;
    bool verified = false;            // the backup as a whole, whatever else the card holds by now
    std::vector<std::string> reasons; // sentences for the user, the gravest first; each once
};

Verdict judge(const Evidence& evidence);

} // namespace Promises

} // namespace velmora
