#pragma once

#include "records/Clip.h"
#include "records/HistoryEntry.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// A proposed card name, and the words under the field that say where it came from.
struct NameSuggestion {
    std::string name;
    std::string hint;

    bool operator==(const NameSuggestion&) const = default;
};

// Reel names as cameras put them into clip names: a camera letter and three digits.
namespace ReelNames {

struct Match {
    std::string reel;   // "A012"
    std::string prefix; // "A"
};

// "A012_20250314_C003", "A012_C003" and "A012C0034" hold the reel "A012". Case counts.
std::optional<Match> match(std::string_view clipName);

} // namespace ReelNames

namespace ReelSuggestion {

struct FromClips {
    std::optional<NameSuggestion> suggestion;
    std::optional<std::string> note; // set when the card holds more than one reel
    std::vector<std::string> reels;  // ascending
};

FromClips fromClips(const std::vector<Clip>& clips);

// The next card of the day: the letter of the newest card named like a reel, its highest number plus one. `taken` are
// names that are planned already but not in the history. Nothing when no card of the day is named so, and when the
// number would need a fourth digit.
std::optional<NameSuggestion> next(const std::vector<HistoryEntry>& history, const std::string& date,
                                   const std::optional<std::string>& project, const std::string& today,
                                   const std::vector<std::string>& taken);

} // namespace ReelSuggestion

} // namespace velmora
