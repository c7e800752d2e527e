#pragma once

#include "memory/CardInspector.h"
#include "records/ClipInfo.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// One card that needs a name.
struct CardNameInput {
    std::string key;                  // the caller's own mark for the card
    std::optional<std::string> typed; // what the user entered
    const CardInsight* insight = nullptr;
    std::string fallback; // volume label or name of the source folder
};

// Names cards without the wrangler typing: from the clip names, else the next of the day, else the volume label.
namespace CardNaming {

struct Name {
    std::string name;
    std::optional<std::string> hint; // where the name came from; none for a typed one and for the fallback

    bool operator==(const Name&) const = default;
};

// What a front end says of a name: "Card name: A012 (from the clips)" and its like.
std::string sentence(const Name& name, const CardNameInput& input);

// The text that stands grey in the name field.
std::string placeholder(bool suggestFromClips, const CardInsight* insight, const std::vector<HistoryEntry>& history,
                        const std::string& date, const std::string& today, const std::string& fallback,
                        const std::vector<std::string>& taken, const std::optional<std::string>& project);

// Names for a whole list, in its order: two cards without reels in one go get two consecutive names.
std::map<std::string, Name> resolve(bool suggestFromClips, const std::vector<CardNameInput>& cards,
                                    const std::vector<HistoryEntry>& history, const std::string& date,
                                    const std::string& today, const std::optional<std::string>& project);

} // namespace CardNaming

namespace ReelResolver {

// The reel of one clip: from its name, else from its metadata, else the card's name.
std::string resolve(const Clip& clip, const std::optional<ClipInfo>& info, const std::string& cardName);

} // namespace ReelResolver

} // namespace velmora
