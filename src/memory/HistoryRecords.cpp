#include "memory/HistoryRecords.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "clips/ClipDetector.h"
#include "engine/Layout.h"
#include "memory/CardFingerprint.h"
#include "memory/ReelNames.h"
#include "memory/Remembered.h"

#include <algorithm>
#include <map>
#include <set>

namespace velmora::HistoryRecords {

namespace {

std::set<std::string> keysOf(const std::vector<std::string>& cardPaths) {
    std::set<std::string> keys;
    for (const std::string& path : cardPaths)
        keys.insert(Layout::normalizedRoot(path));
    return keys;
}

std::vector<std::string> cardPathsOf(const HistoryEntry& entry) {
    std::vector<std::string> paths;
    for (const HistoryDestination& destination : entry.destinations)
        paths.push_back(destination.cardPath);
    return paths;
}

std::optional<HistoryCard> cardOf(const std::optional<CardVolume>& volume) {
    if (!volume)
        return std::nullopt;
    return HistoryCard{volume->identity, volume->fsSerial, volume->capacity, volume->label, volume->filesystem};
}

void addGeneration(HistoryEntry& entry, const HistoryGeneration& generation) {
    auto& all = entry.generations;
    std::erase_if(all, [&](const HistoryGeneration& other) { return other.seq == generation.seq; });
    all.push_back(generation);
    std::sort(all.begin(), all.end(),
              [](const HistoryGeneration& a, const HistoryGeneration& b) { return a.seq < b.seq; });
}

// "<date>/<card>" of a card folder.
std::string tailOf(const std::string& cardPath) {
    const std::string_view folder = RelativePath::folder(cardPath);
    return pathKey(std::string(RelativePath::name(folder)) + "/" + std::string(RelativePath::name(cardPath)));
}

} // namespace

bool sameName(const std::string& a, const std::string& b) { return tailOf(a) == tailOf(b); }

bool samePlace(const std::string& a, const std::string& b) {
    // Only what can be the same is looked up on a disk, for that may be slow or away.
    return sameName(a, b) && Layout::normalizedRoot(a) == Layout::normalizedRoot(b);
}

HistoryEntry verified(const HistoryEntry& entry, const HistoryVerification& mark) {
    HistoryEntry marked = entry;
    Verifications::enter(marked.verifications, mark);
    return marked;
}

const HistoryEntry* entryOf(const std::vector<HistoryEntry>& entries, const std::vector<std::string>& cardPaths) {
    const std::set<std::string> wanted = keysOf(cardPaths);
    for (const HistoryEntry& entry : entries)
        if (keysOf(cardPathsOf(entry)) == wanted)
            return &entry;
    return nullptr;
}

std::vector<const HistoryEntry*> entriesOfName(const std::vector<HistoryEntry>& entries,
                                               const std::vector<std::string>& cardPaths) {
    std::set<std::string> wanted;
    for (const std::string& path : cardPaths)
        wanted.insert(tailOf(RelativePath::withoutTrailingSlash(path)));
    std::vector<const HistoryEntry*> found;
    for (const HistoryEntry& entry : entries)
        if (std::ranges::any_of(entry.destinations,
                                [&](const auto& each) { return wanted.contains(tailOf(each.cardPath)); }))
            found.push_back(&entry);
    return found;
}

HistoryStore::Change started(const OffloadPlan& plan, const std::optional<CardVolume>& volume, Timestamp now) {
    HistoryEntry entry;
    entry.id = HistoryStore::newId(now);
    entry.source = plan.source;
    entry.cardName = plan.cardName;
    entry.date = plan.date;
    entry.project = plan.project;
    entry.finished = now;
    entry.unfinished = true;
    const std::vector<std::string> cardPaths = plan.cardPaths();
    for (std::size_t d = 0; d < cardPaths.size(); ++d)
        entry.destinations.push_back({d < plan.destRoots.size() ? plan.destRoots[d] : cardPaths[d], cardPaths[d]});
    entry.files = static_cast<std::int64_t>(plan.scan.files.size());
    entry.bytes = plan.scan.totalBytes();
    return withCard(entry, volume, plan.scan.files, std::nullopt);
}

HistoryEntry reopened(const HistoryEntry& entry) {
    HistoryEntry open = entry;
    open.unfinished = true;
    return open;
}

HistoryEntry failed(const HistoryEntry& entry, Timestamp now) {
    HistoryEntry broken = entry;
    broken.finished = now;
    broken.failedFiles = entry.files;
    broken.unfinished = broken.success = broken.verified = false;
    broken.safeToEject = broken.safeToFormat = false;
    return broken;
}

bool holdsNothing(const HistoryEntry& entry) {
    return !entry.unfinished && entry.generations.empty() && entry.files > 0 &&
           entry.failedFiles.value_or(0) >= entry.files;
}

HistoryStore::Change finished(const HistoryEntry* present, const std::string& id, const OffloadReport& report,
                              const std::vector<SourceFile>& card, const std::optional<CardVolume>& volume,
                              const std::optional<std::vector<SourceFile>>& storedFiles,
                              const std::optional<BackupCheck>& wholeCard, const Verdict& verdict) {
    HistoryEntry entry = present ? *present : HistoryEntry{};
    entry.id = id;
    entry.source = report.source;
    entry.cardName = report.cardName;
    entry.date = report.date;
    if (report.project)
        entry.project = report.project;
    entry.finished = report.finished;
    entry.hashAlgorithms = report.algorithms();
    entry.destinations.clear();
    for (const auto& destination : report.destinations)
        entry.destinations.push_back({destination.root, destination.cardPath});
    const bool first = entry.generations.empty() || report.generationNumber() == 1;
    auto failed = static_cast<std::int64_t>(report.failedFiles().size());
    if (wholeCard) {
        failed = std::max({failed, wholeCard->failedFiles, wholeCard->state.failed});
        for (const HistoryGeneration& generation : wholeCard->generations)
            addGeneration(entry, generation);
    }
    entry.failedFiles = failed;
    entry.success = failed == 0 && (!wholeCard || !wholeCard->error);
    addGeneration(entry, HistoryGeneration::of(report, report.generationNumber()));
    entry.verified = entry.success && verdict.verified;
    entry.safeToEject = verdict.safeToEject;
    entry.safeToFormat = verdict.safeToFormat;
    entry.unfinished = report.verifyPending.value_or(false); // whoever breaks off now is asked to finish it
    if (report.isRepair() && entry.verified)
        for (const auto& destination : report.destinations)
            entry = verified(entry, {destination.cardPath, destination.volumeSerial, report.finished, {}, {}});
    HistoryStore::Change change = withCard(entry, volume, card, first ? std::nullopt : storedFiles);
    // Totals of the whole backup. The sum over the generations would be wrong after a repair, or when an entry was
    // lost.
    change.entry.files = static_cast<std::int64_t>(change.files->size());
    change.entry.bytes = 0;
    for (const SourceFile& file : *change.files)
        change.entry.bytes += file.size;
    return change;
}

HistoryStore::Change withCard(const HistoryEntry& entry, const std::optional<CardVolume>& volume,
                              const std::vector<SourceFile>& card,
                              const std::optional<std::vector<SourceFile>>& storedFiles) {
    std::map<std::string, SourceFile> merged;
    if (storedFiles)
        for (const SourceFile& file : *storedFiles)
            merged.insert_or_assign(file.relPath, file);
    for (const SourceFile& file : card)
        merged.insert_or_assign(file.relPath, file);
    HistoryStore::Change change{entry, std::vector<SourceFile>()};
    change.files->reserve(merged.size());
    for (auto& [path, file] : merged)
        change.files->push_back(std::move(file));
    const CardFingerprint::Digests digests = CardFingerprint::compute(*change.files);
    change.entry.fingerprint = digests.fingerprint;
    change.entry.shape = digests.shape;
    if (volume)
        change.entry.card = cardOf(volume);
    const auto clips = ClipDetector::detect(*change.files);
    change.entry.reels = ReelSuggestion::fromClips(clips).reels;
    return change;
}

} // namespace velmora::HistoryRecords
