#pragma once

#include "cli/Command.h"
#include "records/JobConfig.h"
#include "records/SourceFile.h"

#include <optional>
#include <string>

namespace velmora {

class HistorySession;
struct OffloadOptions;

// What the terminal does between "copy this card" and the copy: it looks at the card, proposes a name, and asks before
// a card is copied that is backed up already.
namespace CopyStart {

struct Choice {
    bool again = false;           // copy a card that is already backed up
    bool suggestFromClips = true; // take the card's name from its clips
};

// The card as it was listed, for the copy to plan with.
struct Listing {
    SourceScan scan;
    std::string identity;
};

// Fills in `config.cardName`. What the preflight refuses is left for the job to refuse, and the card is then not looked
// at. None also where the listing may not hold any more when the copy begins. Throws Cancelled, and OffloadError when
// the user does not want the copy, nobody is there to ask, or the date is none.
std::optional<Listing> prepare(JobConfig& config, const OffloadOptions& options, const Choice& choice,
                               HistorySession& history, CommandContext& context);

} // namespace CopyStart

} // namespace velmora
