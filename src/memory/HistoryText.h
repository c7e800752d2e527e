#pragma once

#include "memory/HistoryMatcher.h"

#include <string>
#include <vector>

namespace velmora {

enum class HistoryTone { neutral, ok, warning, error };

// The words about a remembered card, for tiles, lists and the terminal. Pure functions.
namespace HistoryText {

struct Line {
    std::string text;
    HistoryTone tone = HistoryTone::neutral;
};

// "2026-03-14 09:30", local time.
std::string when(Timestamp date);
// "DISK_A" for a root where volumes are mounted, "the system disk" for "/", else the path.
std::string diskName(const std::string& root);
// "The card is empty — backed up earlier on …"
std::string emptied(const HistoryEntry& entry);
// One sentence on a match; with `fullPaths` the card folders stand behind it.
Line line(const HistoryMatch& match, bool fullPaths);
// What the folders on the disks, and the way the card was recognised, add to that sentence; a line each.
std::vector<std::string> notes(const HistoryMatch& match);
// Everything on the card is in the backup, as far as the history and the disks that are there can tell.
bool holdsWholeCard(const HistoryMatch& match);
// The state of an entry by itself, for a list of entries: "verified", "NOT VERIFIED", "with errors (2 files)",
// "unfinished".
Line state(const HistoryEntry& entry);
// The same for an entry whose folders were looked at: what they are now replaces a remembered "verified".
std::string stateNow(const HistoryMatch& match);

} // namespace HistoryText

} // namespace velmora
