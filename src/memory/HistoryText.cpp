#include "memory/HistoryText.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <algorithm>

namespace velmora::HistoryText {

namespace {

std::int64_t failedFiles(const HistoryEntry& entry) { return entry.failedFiles.value_or(0); }

std::string folders(const HistoryEntry& entry) {
    std::string text;
    for (const HistoryDestination& destination : entry.destinations)
        text += (text.empty() ? "" : ", ") + destination.cardPath;
    return text;
}

std::vector<std::string> problems(const HistoryMatch& match) {
    std::vector<std::string> all;
    for (const FolderNow& folder : match.folders)
        if (std::string problem = folder.problem(); !problem.empty())
            all.push_back(std::move(problem));
    return all;
}

bool allGood(const HistoryEntry& entry) { return entry.success && failedFiles(entry) == 0; }

// The sentence itself names the first problem of the disks.
bool saysProblem(const HistoryMatch& match) {
    return (match.entry.unfinished || allGood(match.entry)) && !problems(match).empty();
}

// Of the card as it is now: what was promised of it, and nothing has come to it since.
bool maySay(const std::optional<bool>& promise, const HistoryMatch& match) {
    return promise.value_or(false) && match.kind == HistoryMatchKind::identical && match.uncopied == 0;
}

Line sentence(const HistoryMatch& match) {
    const HistoryEntry& entry = match.entry;
    const std::string date = when(entry.finished);
    const auto problem = problems(match);
    if (entry.unfinished && !problem.empty())
        return {fmt::format("Unfinished backup on {} — the copy was interrupted, and {}", date, problem.front()),
                HistoryTone::error};
    if (entry.unfinished)
        return {"Unfinished backup on " + date + " — the copy was interrupted; it can be finished",
                HistoryTone::warning};
    const std::string begin = "Backed up on " + date;
    if (match.kind == HistoryMatchKind::changed)
        return {fmt::format("{}, but the card has changed since ({} files differ) — cannot append, only a full copy",
                            begin, match.changed.size()),
                HistoryTone::warning};
    if (!allGood(entry))
        return {fmt::format("{} — with errors ({} files)", begin, failedFiles(entry)), HistoryTone::error};
    if (!problem.empty()) // the disk is the truth; what it does not show any more is still known
        return {
            fmt::format("{}, {}but {} — do not format", begin, entry.verified ? "" : "NOT VERIFIED, ", problem.front()),
            HistoryTone::error};
    if (!entry.verified || std::ranges::any_of(match.folders, [](const auto& f) { return f.unverified.count > 0; }))
        return {begin + (match.entry.card && maySay(entry.safeToEject, match)
                             ? " — NOT VERIFIED (safe to eject, do not format)"
                             : " — NOT VERIFIED (do not format)"),
                HistoryTone::warning};
    if (match.uncopied > 0)
        return {fmt::format("{} — verified, but {} on the card that no backup can hold — do not format", begin,
                            counted(match.uncopied, "name", "names")),
                HistoryTone::warning};
    switch (match.kind) {
    case HistoryMatchKind::newFiles:
        return {fmt::format("{} — verified, but {} since ({}) — do not format", begin,
                            counted(match.newFiles.size(), "new file", "new files"), formatBytesShort(match.newBytes)),
                HistoryTone::warning};
    case HistoryMatchKind::notCompared:
        return {begin + " — verified, but its files could not be compared with the card — do not format",
                HistoryTone::warning};
    default:
        break;
    }
    // The history promises nothing that the run itself did not promise.
    if (!maySay(entry.safeToFormat, match))
        return {begin + " — verified, but its last run did not call the card safe to format — do not format",
                HistoryTone::warning};
    if (!match.entry.card) // only a medium with a serial is known to be that very card
        return {begin +
                    " — verified, but nothing tells this card from another one with the same names, sizes and times "
                    "— do not format",
                HistoryTone::warning};
    return {begin + " — verified, safe to format", HistoryTone::ok};
}

} // namespace

std::string when(Timestamp date) { return TimeText::local(date, "%Y-%m-%d %H:%M"); }

std::string diskName(const std::string& root) {
    const std::string path = RelativePath::withoutTrailingSlash(root);
    if (path == "/")
        return "the system disk";
    return VolumeFacts::isUserVolumePath(path) ? std::string(RelativePath::name(path)) : root;
}

std::string emptied(const HistoryEntry& entry) {
    return "The card is empty — backed up earlier on " + when(entry.finished);
}

Line line(const HistoryMatch& match, bool fullPaths) {
    Line line = sentence(match);
    if (fullPaths && !match.entry.destinations.empty())
        line.text += " — " + folders(match.entry);
    return line;
}

std::vector<std::string> notes(const HistoryMatch& match) {
    std::vector<std::string> lines = problems(match);
    if (saysProblem(match))
        lines.erase(lines.begin());
    for (const FolderNow& folder : match.folders)
        if (folder.state == FolderNow::State::away)
            lines.push_back(fmt::format("Not connected: {} — its state is that of {}, it was not looked at now.",
                                        folder.cardPath, when(folder.lastKnown)));
    if (!match.folders.empty() && !match.entry.card)
        lines.emplace_back("Recognised by the names, sizes and times of its files only — another card could have the "
                           "same; nothing was compared.");
    return lines;
}

bool holdsWholeCard(const HistoryMatch& match) {
    return match.kind == HistoryMatchKind::identical && match.entry.card && !match.entry.unfinished &&
           allGood(match.entry) && match.uncopied == 0 && problems(match).empty();
}

Line state(const HistoryEntry& entry) {
    if (entry.unfinished)
        return {"unfinished", HistoryTone::warning};
    if (!entry.success) {
        const std::int64_t n = failedFiles(entry);
        return {fmt::format("with errors ({} {})", n, n == 1 ? "file" : "files"), HistoryTone::error};
    }
    if (!entry.verified)
        return {"NOT VERIFIED", HistoryTone::warning};
    return {"verified", HistoryTone::ok};
}

std::string stateNow(const HistoryMatch& match) {
    const bool remembersGood = !match.entry.unfinished && match.entry.success && match.entry.verified;
    if (!remembersGood)
        return state(match.entry).text;
    if (const auto found = problems(match); !found.empty())
        return "but " + found.front();
    const bool unread = std::ranges::any_of(match.folders, [](const auto& f) { return f.unverified.count > 0; });
    return unread ? "NOT VERIFIED" : state(match.entry).text;
}

} // namespace velmora::HistoryText
