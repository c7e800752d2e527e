#pragma once

#include "base/Errors.h"
#include "memory/HistoryMatcher.h"
#include "memory/ReelNames.h"
#include "records/CardKey.h"
#include "records/Clip.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

class HistoryStore;

// All that is known of a card before its copy starts.
struct CardInsight {
    std::string source;
    std::optional<CardVolume> volume; // none for a folder that is not the root of a volume
    std::optional<std::string> filesystem;
    std::int64_t totalBytes = 0;
    std::int64_t fileCount = 0;
    SourceScan listing;
    std::vector<std::string> uncopied; // what is on the card and cannot be copied, escaped for display
    std::vector<Clip> clips;
    std::string fingerprint;
    std::string shape;
    std::optional<HistoryMatch> match;
    bool appendReachable = false; // every folder of the backup is there, and there is something to add or finish
    std::optional<NameSuggestion> nameSuggestion;
    std::optional<std::string> nameNote;
    std::optional<std::string> error;

    // The card was backed up and then wiped.
    bool isEmptied() const { return fileCount == 0 && uncopied.empty() && match && match->removed > 0; }
};

// Recognises a card in the time of one directory scan: fingerprint, history, comparison file by file where it is
// needed. Reads directories only.
namespace CardInspector {

// The outside world, replaceable in tests.
struct World {
    std::function<std::optional<CardVolume>(const std::string& path)> volumeOf;
    std::function<std::optional<std::string>(const std::string& path)> identify;
    std::function<bool(const std::string& path)> isVolumeRoot;
    std::function<bool(const std::string& path)> directoryExists;
    std::function<bool(const std::string& path)> awaitsVolume; // the disk of the path is not mounted

    static World real();
};

bool isVolumeRoot(const std::string& path);

// `history` is what was already recalled. Without it `store` is asked; without either nothing is matched. `store` also
// gives the file lists. Throws Cancelled; every other problem stands in `error`.
CardInsight inspect(const std::string& source, HistoryStore* store, const Remembered* history,
                    const IsCancelled& isCancelled, const World& world);

} // namespace CardInspector

} // namespace velmora
