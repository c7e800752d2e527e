#pragma once

#include "memory/CardInspector.h"

#include <string>
#include <utility>
#include <vector>

namespace velmora {

enum class BackedUpChoice { copyAgain, skipBackedUp, cancel };

// The question before a card that is already backed up is copied in full again.
struct BackedUpPromptModel {
    struct Button {
        BackedUpChoice choice;
        std::string label;
    };
    std::string title;
    std::vector<std::string> lines; // one a card
    std::string question;
    std::vector<Button> buttons;
};

namespace BackedUpPrompt {

// True when the card has a finished backup and nothing on it was changed since.
bool shouldAsk(const CardInsight* insight);

// For each card its match and the name planned for its folder; `date` is that of the job.
BackedUpPromptModel build(const std::vector<std::pair<HistoryMatch, std::string>>& matches, const std::string& date);

std::string line(const HistoryMatch& match);

// Where a full copy would go: "{date}/{name}", or "{name}_2" beside the earlier folder of the same day and name.
std::string newFolder(const HistoryEntry& entry, const std::string& date, const std::string& plannedName);

} // namespace BackedUpPrompt

// When an earlier backup may be offered for appending or finishing, and the words of the offer.
namespace AppendRules {

bool offer(const CardInsight* insight);
std::string checkboxText(const HistoryMatch& match);
// "Folder: 2026-03-14/A001 on 2 destinations"
std::string folderText(const HistoryEntry& entry);

} // namespace AppendRules

} // namespace velmora
