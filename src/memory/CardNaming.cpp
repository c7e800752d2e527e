#include "memory/CardNaming.h"

#include "base/Text.h"

namespace velmora {

namespace CardNaming {

namespace {

Name derived(bool suggestFromClips, const CardInsight* insight, const std::vector<HistoryEntry>& history,
             const std::string& date, const std::string& today, const std::string& fallback,
             const std::vector<std::string>& taken, const std::optional<std::string>& project) {
    if (suggestFromClips && insight && insight->nameSuggestion)
        return {insight->nameSuggestion->name, insight->nameSuggestion->hint};
    if (const auto next = ReelSuggestion::next(history, date, project, today, taken))
        return {next->name, next->hint};
    return {fallback, std::nullopt};
}

bool isTyped(const CardNameInput& card) { return card.typed && !trim(*card.typed).empty(); }

} // namespace

std::string sentence(const Name& name, const CardNameInput& input) {
    if (isTyped(input))
        return "Card name: " + name.name;
    if (input.insight && input.insight->nameSuggestion && name.hint == input.insight->nameSuggestion->hint)
        return "Card name: " + name.name + " (from the clips)";
    if (name.hint)
        return "Card name: " + name.name + " (" + *name.hint + ")";
    return "No name suggestion found — using the volume label.";
}

std::string placeholder(bool suggestFromClips, const CardInsight* insight, const std::vector<HistoryEntry>& history,
                        const std::string& date, const std::string& today, const std::string& fallback,
                        const std::vector<std::string>& taken, const std::optional<std::string>& project) {
    return derived(suggestFromClips, insight, history, date, today, fallback, taken, project).name;
}

std::map<std::string, Name> resolve(bool suggestFromClips, const std::vector<CardNameInput>& cards,
                                    const std::vector<HistoryEntry>& history, const std::string& date,
                                    const std::string& today, const std::optional<std::string>& project) {
    std::map<std::string, Name> names;
    std::vector<std::string> taken;
    for (const CardNameInput& card : cards) {
        Name name = isTyped(card)
                        ? Name{trim(*card.typed), std::nullopt}
                        : derived(suggestFromClips, card.insight, history, date, today, card.fallback, taken, project);
        taken.push_back(name.name);
        names[card.key] = std::move(name);
    }
    return names;
}

} // namespace CardNaming

namespace ReelResolver {

std::string resolve(const Clip& clip, const std::optional<ClipInfo>& info, const std::string& cardName) {
    if (const auto match = ReelNames::match(clip.name))
        return match->reel;
    if (info && info->reel && !info->reel->empty())
        return *info->reel;
    return cardName;
}

} // namespace ReelResolver

} // namespace velmora
