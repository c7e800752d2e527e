#include "memory/HistoryText.h"

#include "base/Text.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

namespace velmora::HistoryText {

namespace {

std::int64_t failedFiles(const HistoryEntry& entry) { return entry.failedFiles.value_or(0); }

std::string folders(const HistoryEntry& entry) {
    std::string text;
    for (const HistoryDestination& destination : entry.destinations)
        text += (text.empty() ? "" : ", ") + destination.cardPath;
    return text;
}

Line sentence(const HistoryMatch& match) {
    const HistoryEntry& entry = match.entry;
    const std::string date = when(entry.finished);
    if (entry.unfinished)
        return {"Unfinished backup on " + date + " — the copy was interrupted; it can be finished",
                HistoryTone::warning};
    const std::string begin = "Backed up on " + date;
    if (match.kind == HistoryMatchKind::changed)
        return {fmt::format("{}, but the card has changed since ({} files differ) — cannot append, only a full copy",
                            begin, match.changed.size()),
                HistoryTone::warning};
    if (!entry.success || failedFiles(entry) > 0)
        return {fmt::format("{} — with errors ({} files)", begin, failedFiles(entry)), HistoryTone::error};
    if (!entry.verified)
        return {begin + " — NOT VERIFIED (safe to eject, do not format)", HistoryTone::warning};
    if (match.uncopied > 0)
        return {fmt::format("{} — verified, but {} on the card that no backup can hold — do not format", begin,
                            counted(match.uncopied, "name", "names")),
                HistoryTone::warning};
    // The promise to format covers what is on the card now, so it stands only when nothing was added since.
    switch (match.kind) {
    case HistoryMatchKind::newFiles:
        return {fmt::format("{} — verified, but {} since ({}) — do not format", begin,
                            counted(match.newFiles.size(), "new file", "new files"), formatBytesShort(match.newBytes)),
                HistoryTone::warning};
    case HistoryMatchKind::notCompared:
        return {begin + " — verified, but its files could not be compared with the card — do not format",
                HistoryTone::warning};
    default:
        return {begin + " — verified, safe to format", HistoryTone::ok};
    }
}

} // namespace

std::string when(Timestamp date) { return TimeText::local(date, "%Y-%m-%d %H:%M"); }

std::string diskName(const std::string& root) {
    if (!VolumeFacts::isUserVolumePath(root))
        return root;
    std::string_view path = root;
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    return std::string(path.substr(path.rfind('/') + 1));
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

} // namespace velmora::HistoryText
