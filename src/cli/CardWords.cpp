#include "cli/CardWords.h"

#include "base/Text.h"
#include "memory/BackedUpPrompt.h"
#include "memory/HistoryText.h"

#include <fmt/format.h>

#include <map>

namespace velmora::CardWords {

namespace {

constexpr std::size_t namesShown = 10;

// A path as a shell takes it.
std::string quoted(const std::string& path) { return "'" + replaceAll(path, "'", "'\\''") + "'"; }

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
    switch (match.kind) {
    case HistoryMatchKind::identical:
        lines.push_back("The card is identical to the backup.");
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
    std::string command = "velmora " + verb + " " + quoted(source);
    for (const std::string& path : cardPaths)
        command += " --into " + quoted(path);
    return command;
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

std::vector<std::string> offers(const CardInsight& insight) {
    if (insight.error || !insight.match || insight.isEmptied())
        return {};
    if (AppendRules::offer(&insight)) {
        std::vector<std::string> cardPaths;
        for (const HistoryDestination& destination : insight.match->entry.destinations)
            cardPaths.push_back(destination.cardPath);
        return {AppendRules::checkboxText(*insight.match), "  " + AppendRules::folderText(insight.match->entry),
                "  " + intoCommand("append", insight.source, cardPaths)};
    }
    const bool useful = insight.match->kind == HistoryMatchKind::newFiles || insight.match->entry.unfinished;
    if (useful && !insight.appendReachable)
        return {
            "The earlier backup is not connected, or left no record there — connect its disks to append to it or to "
            "finish it, or copy the card again in full."};
    if (BackedUpPrompt::shouldAsk(&insight))
        return {"Copy it again in full: velmora copy " + quoted(insight.source) + " --again --dest …"};
    return {};
}

} // namespace velmora::CardWords
