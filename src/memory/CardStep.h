#pragma once

#include "memory/CardInspector.h"

#include <string>
#include <vector>

namespace velmora {

// The one thing to do next with a card that has an earlier backup. Each step names what works: an append where the
// folders can be brought in step, a repair where copies are bad, a full copy where neither can help.
struct CardStep {
    enum class Kind {
        none,      // no backup, or nothing on the card
        append,    // brings what is new, what a run left out, or what was never verified
        finish,    // an append that finishes an interrupted run
        repair,    // copies bad ones again
        copyAgain, // nothing but a full copy into a new folder helps
        copyWhole, // the backup is complete: a further full copy is all there is to do
    };
    Kind kind = Kind::none;
    std::string why;                 // for `copyAgain`: what keeps an append or a repair from working
    std::vector<std::string> away;   // folders that must be connected first
    bool compare = false;            // an append that compares: nothing else tells the card from another one like it,
                                     // or a disk is behind the others
    std::vector<std::string> leftBy; // folders of the old backup that the step leaves as they are
    std::vector<std::string> into;   // the folders that an append or a repair is for

    static CardStep of(const CardInsight& insight);
};

} // namespace velmora
