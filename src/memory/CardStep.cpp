#include "memory/CardStep.h"

#include "base/RelativePath.h"
#include "memory/HistoryRecords.h"
#include "memory/HistoryText.h"

#include <algorithm>
#include <utility>

namespace velmora {

namespace {

using State = FolderNow::State;

bool any(const std::vector<FolderNow>& folders, bool (*test)(const FolderNow&)) {
    return std::ranges::any_of(folders, test);
}

// The folders of the entry; where these lack nothing, those beside them that do: disks that stand at different
// generations do not go into one run.
std::vector<std::string> foldersFor(const HistoryMatch& match) {
    std::vector<std::string> behind;
    bool own = match.kind == HistoryMatchKind::newFiles || match.entry.unfinished;
    for (const FolderNow& folder : match.folders) {
        const bool needs = folder.needsRepair() || folder.needsAppend();
        own = own || (needs && !folder.besides);
        if (needs && folder.besides)
            behind.push_back(folder.cardPath);
    }
    if (!own && !behind.empty())
        return behind;
    std::vector<std::string> paths;
    for (const HistoryDestination& destination : match.entry.destinations)
        paths.push_back(destination.cardPath);
    return paths;
}

// The folders of the lowest generation, where not all stand at one: no run takes them together with the others, and an
// append that compares brings them on by one generation, whatever they lack.
std::vector<std::string> laggingOf(const std::vector<FolderNow>& folders) {
    std::vector<std::string> lagging;
    std::int64_t lowest = 0;
    bool differ = false;
    for (const FolderNow& folder : folders) {
        if (folder.state != State::connected || folder.generation == 0)
            continue;
        differ = differ || (lowest != 0 && folder.generation != lowest);
        if (lowest == 0 || folder.generation < lowest)
            lagging.clear();
        if (lowest == 0 || folder.generation <= lowest) {
            lowest = folder.generation;
            lagging.push_back(folder.cardPath);
        }
    }
    return differ ? lagging : std::vector<std::string>{};
}

// A repair takes all folders of the backup along that stand where those that need it do: it refuses to part them.
void takeInStep(std::vector<std::string>& into, const std::vector<FolderNow>& folders) {
    const auto first = std::ranges::find(folders, into.front(), &FolderNow::cardPath);
    if (first == folders.end() || first->generation == 0)
        return;
    const auto cardName = [](const std::string& path) {
        return std::pair(std::string(RelativePath::name(RelativePath::folder(path))),
                         std::string(RelativePath::name(path)));
    };
    for (const FolderNow& folder : folders)
        if (folder.state == State::connected && folder.generation == first->generation &&
            cardName(folder.cardPath) == cardName(into.front()) &&
            std::ranges::find(into, folder.cardPath) == into.end())
            into.push_back(folder.cardPath);
}

CardStep copyAgain(const HistoryMatch& match, std::string why) {
    CardStep step{CardStep::Kind::copyAgain, std::move(why), {}, false, {}, {}};
    for (const FolderNow& folder : match.folders)
        if (folder.state == State::connected || folder.state == State::unreadable)
            step.leftBy.push_back(folder.cardPath);
        else if (folder.state == State::away && !folder.besides)
            step.away.push_back(folder.cardPath); // its disk is one of those that the copy goes to
    return step;
}

} // namespace

CardStep CardStep::of(const CardInsight& insight) {
    if (insight.error || !insight.match || insight.isEmptied())
        return {};
    const HistoryMatch& match = *insight.match;
    const std::vector<FolderNow>& folders = match.folders;
    if (HistoryRecords::holdsNothing(match.entry))
        return copyAgain(match, "The earlier copy broke off before its first file.");
    if (match.kind == HistoryMatchKind::changed)
        return copyAgain(match, "An append and a repair refuse a card of which files have changed.");
    if (match.kind == HistoryMatchKind::notCompared)
        return {Kind::copyWhole, {}, {}, false, {}, {}};
    const bool broken = any(folders, [](const FolderNow& f) {
        return f.state == State::gone || f.state == State::unreadable || f.lost.count > 0;
    });
    if (broken || match.entry.destinations.empty())
        return copyAgain(match, "The earlier backup cannot be completed.");
    CardStep step;
    step.into = foldersFor(match);
    for (const FolderNow& folder : folders)
        if (folder.state == State::away)
            step.away.push_back(folder.cardPath);
    const bool repairOpen = any(folders, [](const FolderNow& f) { return f.repairOpen; });
    const bool open = any(folders, [](const FolderNow& f) { return f.needsAppend(); });
    if (match.entry.unfinished && !repairOpen)
        step.kind = Kind::finish;
    else if (any(folders, [](const FolderNow& f) { return f.needsRepair(); })) {
        step.kind = Kind::repair;
        for (const FolderNow& folder : folders)
            if (folder.needsRepair() && std::ranges::find(step.into, folder.cardPath) == step.into.end())
                step.into.push_back(folder.cardPath);
        takeInStep(step.into, folders);
    } else if (auto lagging = laggingOf(folders); !lagging.empty()) {
        step.kind = Kind::append;
        step.compare = true;
        step.into = std::move(lagging);
    } else if (open || match.kind == HistoryMatchKind::newFiles || !match.entry.success || !match.entry.verified)
        step.kind = Kind::append;
    else if (!match.entry.safeToFormat.value_or(false) || !match.entry.card) {
        step.kind = Kind::append;
        step.compare = !match.entry.card;
    } else
        return {Kind::copyWhole, {}, {}, false, {}, {}};
    return step;
}

} // namespace velmora
