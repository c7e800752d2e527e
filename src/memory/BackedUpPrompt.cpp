#include "memory/BackedUpPrompt.h"

#include "base/Text.h"
#include "memory/HistoryRecords.h"
#include "memory/HistoryText.h"

#include <fmt/format.h>

namespace velmora {

namespace BackedUpPrompt {

bool shouldAsk(const CardInsight* insight) {
    return insight && !insight->isEmptied() && insight->match && insight->match->kind != HistoryMatchKind::changed &&
           !insight->match->entry.unfinished && !HistoryRecords::holdsNothing(insight->match->entry);
}

std::string newFolder(const HistoryEntry& entry, const std::string& date, const std::string& plannedName) {
    if (entry.date == date && equalIgnoringCase(plannedName, entry.cardName))
        return plannedName + "_2";
    return date + "/" + plannedName;
}

std::string line(const HistoryMatch& match) {
    const HistoryEntry& entry = match.entry;
    std::vector<std::string> disks;
    for (const HistoryDestination& destination : entry.destinations)
        disks.push_back(HistoryText::diskName(destination.root));
    std::string text = fmt::format("{} — {}, {}, {}", entry.cardName, HistoryText::when(entry.finished),
                                   join(disks, ", "), HistoryText::stateNow(match));
    if (!entry.card)
        text += ", recognised by names, sizes and times only";
    if (match.kind == HistoryMatchKind::newFiles)
        text += ", " + counted(static_cast<std::int64_t>(match.newFiles.size()), "new file", "new files");
    return text;
}

BackedUpPromptModel build(const std::vector<std::pair<HistoryMatch, std::string>>& matches, const std::string& date) {
    BackedUpPromptModel model;
    std::vector<std::string> examples;
    for (const auto& [match, plannedName] : matches) {
        model.lines.push_back(line(match));
        examples.push_back(newFolder(match.entry, date, plannedName));
    }
    const std::string where = join(examples, ", ");
    if (matches.size() == 1) {
        model.title = "Card already backed up";
        model.question = "Copy it again in full? A new folder will be created (e.g. " + where + ").";
    } else {
        model.title = "Cards already backed up";
        model.question = "Copy them again in full? New folders will be created (e.g. " + where + ").";
    }
    model.buttons = {{BackedUpChoice::copyAgain, "Copy again"},
                     {BackedUpChoice::skipBackedUp, "Skip backed-up"},
                     {BackedUpChoice::cancel, "Cancel"}};
    return model;
}

} // namespace BackedUpPrompt

namespace AppendRules {

bool offer(const CardInsight* insight) {
    if (!insight || insight->error || !insight->volume || !insight->match || !insight->appendReachable)
        return false;
    const HistoryMatch& match = *insight->match;
    return !match.entry.destinations.empty() && (match.kind == HistoryMatchKind::newFiles ||
                                                 (match.kind == HistoryMatchKind::identical && match.entry.unfinished));
}

std::string checkboxText(const HistoryMatch& match) {
    const std::string text =
        countedFiles(static_cast<std::int64_t>(match.newFiles.size())) + " · " + formatBytesShort(match.newBytes);
    if (!match.entry.unfinished)
        return "Append new clips only to the earlier backup (" + text + ")";
    if (match.newFiles.empty())
        return "Finish interrupted backup (finishes the verification)";
    return "Finish interrupted backup (" + text + ")";
}

std::string folderText(const HistoryEntry& entry) {
    std::string folder;
    if (!entry.destinations.empty()) {
        const std::string& path = entry.destinations.front().cardPath;
        std::vector<std::string_view> parts = split(path, '/', false);
        if (parts.size() >= 2)
            folder = std::string(parts[parts.size() - 2]) + "/" + std::string(parts.back());
        else
            folder = path;
    }
    const auto n = static_cast<std::int64_t>(entry.destinations.size());
    return "Folder: " + folder + " on " + counted(n, "destination", "destinations");
}

} // namespace AppendRules

} // namespace velmora
