#include "cli/CardWords.h"

#include "base/Text.h"
#include "cli/ShellText.h"
#include "disks/SpacePlanner.h"
#include "memory/BackedUpPrompt.h"
#include "memory/CardStep.h"
#include "memory/HistoryText.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <map>
#include <set>

namespace velmora::CardWords {

namespace {

constexpr std::size_t namesShown = 10;

std::string clipLine(const std::vector<Clip>& clips) {
    std::map<std::string, std::int64_t> byFormat;
    std::int64_t proxies = 0;
    for (const Clip& clip : clips)
        ++(clip.isCameraProxy ? proxies : byFormat[std::string(label(clip.format))]);
    std::vector<std::string> parts;
    for (const auto& [format, n] : byFormat)
        parts.push_back(fmt::format("{} {}", n, format));
    if (proxies > 0)
        parts.push_back(counted(proxies, "camera proxy", "camera proxies"));
    const auto n = static_cast<std::int64_t>(clips.size());
    return "Clips: " +
           (parts.empty() ? std::string("none") : counted(n, "clip", "clips") + " (" + join(parts, ", ") + ")");
}

void addNames(std::vector<std::string>& lines, const std::vector<std::string>& names) {
    for (std::size_t i = 0; i < names.size() && i < namesShown; ++i)
        lines.push_back("  " + names[i]);
    if (names.size() > namesShown)
        lines.push_back(fmt::format("  and {} more", names.size() - namesShown));
}

void addMatch(std::vector<std::string>& lines, const CardInsight& insight) {
    const HistoryMatch& match = *insight.match;
    if (insight.isEmptied()) {
        lines.push_back(HistoryText::emptied(match.entry));
        return;
    }
    lines.push_back(HistoryText::line(match, true).text);
    for (std::string& note : HistoryText::notes(match))
        lines.push_back(std::move(note));
    switch (match.kind) {
    case HistoryMatchKind::identical:
        if (HistoryText::holdsWholeCard(match))
            lines.emplace_back("The card is identical to the backup.");
        if (match.removed > 0)
            lines.push_back(countedFiles(match.removed) + " of the backup no longer on the card.");
        break;
    case HistoryMatchKind::newFiles: {
        lines.push_back(fmt::format("New on the card: {}, {}",
                                    countedFiles(static_cast<std::int64_t>(match.newFiles.size())),
                                    formatBytes(match.newBytes)));
        std::vector<std::string> names;
        for (const SourceFile& file : match.newFiles)
            names.push_back(file.relPath);
        addNames(lines, names);
        break;
    }
    case HistoryMatchKind::changed:
        lines.push_back("Changed since the backup:");
        addNames(lines, match.changed);
        break;
    case HistoryMatchKind::notCompared:
        lines.push_back("The list of the earlier backup's files is not there to compare with.");
        break;
    }
}

} // namespace

std::string intoCommand(const std::string& verb, const std::string& source, const std::vector<std::string>& cardPaths) {
    std::string command = "velmora " + verb + " " + ShellText::quoted(source);
    for (const std::string& path : cardPaths)
        command += " --into " + ShellText::quoted(path);
    return command;
}

std::string copyAgainCommand(const std::string& source, const std::vector<std::string>& roots) {
    std::string command = "velmora copy " + ShellText::quoted(source) + " --again";
    const std::string card = SpacePlanner::volumeKey(source);
    std::set<std::string> named, volumes;
    bool sameDevice = false, sourceVolume = false;
    for (const std::string& root : roots) {
        if (!named.insert(root).second)
            continue;
        command += " --dest " + ShellText::quoted(root);
        if (VolumeFacts::awaitsVolume(root) || IO::isGone(root)) // which volume comes there, nobody knows
            continue;
        const std::string volume = SpacePlanner::volumeKey(root);
        sourceVolume = sourceVolume || volume == card;
        sameDevice = !volumes.insert(volume).second || sameDevice;
    }
    if (sameDevice)
        command += " --allow-same-device";
    return sourceVolume ? command + " --allow-source-volume" : command;
}

std::vector<std::string> describe(const CardInsight& insight) {
    std::vector<std::string> lines;
    std::string where = insight.source;
    if (insight.volume && insight.volume->label)
        where += " (" + *insight.volume->label + ")";
    if (insight.filesystem)
        where += " [" + *insight.filesystem + "]";
    lines.push_back("Card: " + where);
    if (insight.error) {
        lines.push_back(*insight.error);
        return lines;
    }
    lines.push_back(fmt::format("Files: {}, {}", countedFiles(insight.fileCount), formatBytes(insight.totalBytes)));
    lines.push_back(clipLine(insight.clips));
    if (!insight.uncopied.empty()) {
        lines.push_back(fmt::format("Cannot be copied: {}",
                                    counted(static_cast<std::int64_t>(insight.uncopied.size()), "name", "names")));
        addNames(lines, insight.uncopied);
    }
    if (insight.nameSuggestion)
        lines.push_back(fmt::format("Card name: {} ({})", insight.nameSuggestion->name, insight.nameSuggestion->hint));
    if (insight.nameNote)
        lines.push_back(*insight.nameNote);
    if (insight.match)
        addMatch(lines, insight);
    else
        lines.push_back("Not backed up yet, as far as this computer knows.");
    return lines;
}

std::string command(const CardInsight& insight) {
    const CardStep step = CardStep::of(insight);
    if (step.kind == CardStep::Kind::none)
        return "";
    std::vector<std::string> roots;
    for (const HistoryDestination& destination : insight.match->entry.destinations)
        roots.push_back(destination.root);
    switch (step.kind) {
    case CardStep::Kind::append:
    case CardStep::Kind::finish:
        return intoCommand("append", insight.source, step.into) + (step.compare ? " --compare" : "");
    case CardStep::Kind::repair:
        return intoCommand("repair", insight.source, step.into);
    default:
        return copyAgainCommand(insight.source, roots);
    }
}

std::vector<std::string> offers(const CardInsight& insight) {
    const CardStep step = CardStep::of(insight);
    if (step.kind == CardStep::Kind::none)
        return {};
    const HistoryMatch& match = *insight.match;
    std::vector<std::string> lines;
    for (const std::string& path : step.away)
        if (step.kind != CardStep::Kind::copyWhole)
            lines.push_back("Connect the disk of " + path + " first.");
    switch (step.kind) {
    case CardStep::Kind::finish:
        lines.push_back(AppendRules::checkboxText(match));
        break;
    case CardStep::Kind::append:
        lines.push_back(match.kind == HistoryMatchKind::newFiles
                            ? AppendRules::checkboxText(match)
                            : "Finish the backup: append what it lacks, and verify it");
        break;
    case CardStep::Kind::repair:
        lines.emplace_back("Repair the backup: bad copies are made again from the card");
        break;
    case CardStep::Kind::copyAgain:
        lines.push_back(step.why + " What works is a full copy into a new folder" +
                        (step.leftBy.empty() ? "; the earlier one stays as it is."
                                             : "; the earlier one stays as it is: " + join(step.leftBy, ", ")));
        break;
    default:
        return {"Copy it again in full: " + command(insight)};
    }
    if (step.kind == CardStep::Kind::copyAgain)
        lines.push_back("  " + command(insight));
    else {
        lines.push_back("  " + AppendRules::folderText(match.entry));
        lines.push_back("  " + command(insight));
    }
    return lines;
}

} // namespace velmora::CardWords
