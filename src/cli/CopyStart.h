#pragma once

#include "cli/Command.h"
#include "records/JobConfig.h"

#include <string>

namespace velmora {

class HistorySession;

// What the terminal does between "copy this card" and the copy: it looks at the card, proposes a name, and asks before
// a card is copied that is backed up already.
namespace CopyStart {

struct Choice {
    bool again = false;           // copy a card that is already backed up
    bool suggestFromClips = true; // take the card's name from its clips
    bool json = false;            // a refusal is also a "result" on standard output
};

// True when the copy may begin; `config.cardName` is then filled in. False when the user does not want it, or when
// nobody is there to ask. Throws Cancelled.
bool prepare(JobConfig& config, const Choice& choice, HistorySession& history, CommandContext& context);

} // namespace CopyStart

} // namespace velmora
