#include "memory/ReelNames.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <map>

namespace velmora {

namespace ReelNames {

std::optional<Match> match(std::string_view clipName) {
    // Letter, reel, date, clip; letter, reel, clip; the same without underscore.
    static const RE2 dated("^([A-Z])(\\d{3})_\\d{8}_C(\\d{3})");
    static const RE2 plain("^([A-Z])(\\d{3})_C(\\d{3})");
    static const RE2 joined("^([A-Z])(\\d{3})C(\\d{3,4})");
    const re2::StringPiece text(clipName.data(), clipName.size());
    std::string letter;
    std::string number;
    for (const RE2* pattern : {&dated, &plain, &joined})
        if (RE2::PartialMatch(text, *pattern, &letter, &number))
            return Match{letter + number, letter};
    return std::nullopt;
}

} // namespace ReelNames

namespace ReelSuggestion {

namespace {

struct Numbered {
    char letter;
    int number;
    std::string name;
};

// A card name that is nothing but a reel.
std::optional<Numbered> numbered(const std::string& name) {
    if (name.size() != 4 || name[0] < 'A' || name[0] > 'Z')
        return std::nullopt;
    int number = 0;
    for (std::size_t i = 1; i < 4; ++i) {
        if (name[i] < '0' || name[i] > '9')
            return std::nullopt;
        number = number * 10 + (name[i] - '0');
    }
    return Numbered{name[0], number, name};
}

} // namespace

FromClips fromClips(const std::vector<Clip>& clips) {
    std::map<std::string, std::string> exampleOf; // reel to the first clip that names it
    for (const Clip& clip : clips) {
        // A reel is the first four characters of the name. A name that begins with a known reel adds none.
        if (clip.isCameraProxy || exampleOf.contains(clip.name.substr(0, 4)))
            continue;
        if (const auto found = ReelNames::match(clip.name))
            exampleOf.emplace(found->reel, clip.name);
    }
    FromClips result;
    for (const auto& [reel, example] : exampleOf)
        result.reels.push_back(reel);
    if (exampleOf.empty())
        return result;
    const auto& [reel, example] = *exampleOf.begin();
    result.suggestion = NameSuggestion{reel, fmt::format("from the clip names ({})", example)};
    if (result.reels.size() > 1)
        result.note = fmt::format("The card has more than one reel: {}", fmt::join(result.reels, ", "));
    return result;
}

std::optional<NameSuggestion> next(const std::vector<HistoryEntry>& history, const std::string& date,
                                   const std::optional<std::string>& project, const std::string& today,
                                   const std::vector<std::string>& taken) {
    std::vector<Numbered> candidates;
    std::optional<char> letter;
    // A card planned a moment ago is newer than any that the history holds.
    for (auto name = taken.rbegin(); name != taken.rend(); ++name)
        if (const auto card = numbered(*name)) {
            letter = letter.value_or(card->letter);
            candidates.push_back(*card);
        }
    Timestamp newest;
    std::optional<char> newestLetter;
    for (const HistoryEntry& entry : history) {
        if (entry.date != date || (project && entry.project != project))
            continue;
        const auto card = numbered(entry.cardName);
        if (!card)
            continue;
        if (!newestLetter || entry.finished > newest) {
            newest = entry.finished;
            newestLetter = card->letter;
        }
        candidates.push_back(*card);
    }
    if (!letter)
        letter = newestLetter;
    if (!letter)
        return std::nullopt;
    const Numbered* highest = nullptr;
    for (const Numbered& card : candidates)
        if (card.letter == *letter && (!highest || card.number > highest->number))
            highest = &card;
    if (highest->number >= 999)
        return std::nullopt;
    return NameSuggestion{fmt::format("{}{:03}", *letter, highest->number + 1),
                          fmt::format("next after {}{}", highest->name, date == today ? " today" : "")};
}

} // namespace ReelSuggestion

} // namespace velmora
