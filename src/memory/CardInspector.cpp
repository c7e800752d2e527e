#include "memory/CardInspector.h"

#include "base/StopIf.h"
#include "clips/ClipDetector.h"
#include "disks/CardIdentity.h"
#include "disks/VolumeSerial.h"
#include "engine/Scanner.h"
#include "memory/CardFingerprint.h"
#include "memory/HistoryRecords.h"
#include "memory/HistoryStore.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <algorithm>
#include <future>

namespace velmora::CardInspector {

namespace {

// Scans, or says in `insight.error` why not.
std::optional<SourceScan> scan(CardInsight& insight, const IsCancelled& isCancelled) {
    try {
        return Scanner::scan(insight.source, isCancelled);
    } catch (const OffloadError& error) {
        insight.error = error.what();
    } catch (const IOError& error) {
        insight.error = std::string("Cannot read the card: ") + error.what();
    }
    return std::nullopt;
}

void matchHistory(CardInsight& insight, const SourceScan& scan, HistoryStore* store, const Remembered& history,
                  const IsCancelled& isCancelled, const World& world) {
    std::optional<CardKey> key;
    if (insight.volume)
        key = CardKey{insight.volume->fsSerial, insight.volume->capacity};
    const auto identity = insight.volume ? insight.volume->identity : std::nullopt;
    const HistoryEntry* candidate = HistoryStore::findForCard(key, insight.shape, history.entries, identity);
    if (!candidate)
        return;
    std::optional<std::vector<SourceFile>> list;
    if (store && candidate->fingerprint != insight.fingerprint)
        list = store->readFileList(*candidate);
    insight.match = HistoryMatcher::match(scan.files, insight.fingerprint, *candidate, list, insight.filesystem);
    insight.match->uncopied = static_cast<std::int64_t>(scan.uncopied.size());
    const HistoryMatch& match = *insight.match;
    const bool useful = match.kind == HistoryMatchKind::newFiles ||
                        (match.kind == HistoryMatchKind::identical && match.entry.unfinished);
    const auto& destinations = match.entry.destinations;
    insight.appendReachable =
        useful && !destinations.empty() && std::all_of(destinations.begin(), destinations.end(), [&](const auto& d) {
            return !d.cardPath.empty() && world.directoryExists(d.cardPath);
        });
    // A card that was emptied, changed or could not be compared gets no promise, whatever the disks hold.
    if (!scan.files.empty() && !HistoryRecords::holdsNothing(match.entry) &&
        (match.kind == HistoryMatchKind::identical || match.kind == HistoryMatchKind::newFiles))
        insight.match->folders = FoldersNow::look(
            match.entry, history, {scan.files, match.newFiles, insight.filesystem}, world.awaitsVolume, isCancelled);
}

// An error counts as a no in both. The scan, or the look at the folders of the backup, will say what is wrong.
bool isFolder(const std::string& path) try { return IO::isFolder(path); } catch (const IOError&) {
    return false;
}
bool isNoFolder(const std::string& path) try {
    return IO::exists(path) && !IO::isFolder(path);
} catch (const IOError&) {
    return false;
}

} // namespace

bool isVolumeRoot(const std::string& path) { return VolumeFacts::isVolumeRoot(path); }

World World::real() {
    return {[](const std::string& path) { return cardVolumeOf(path); },
            [](const std::string& path) { return CardIdentity::of(path); },
            // A volume that bears no serial cannot be told from another: it is looked up as a folder is.
            [](const std::string& path) { return CardInspector::isVolumeRoot(path) && VolumeFacts::fsSerial(path); },
            isFolder, [](const std::string& path) { return VolumeFacts::awaitsVolume(path); }};
}

CardInsight inspect(const std::string& source, HistoryStore* store, const Remembered* history,
                    const IsCancelled& isCancelled, const World& world) {
    CardInsight insight;
    insight.source = source;
    stopIf(isCancelled);
    if (isNoFolder(source)) {
        insight.error = source + " is not a folder.";
        return insight;
    }
    if (world.isVolumeRoot(source)) {
        insight.volume = world.volumeOf(source);
        if (!insight.volume) {
            insight.error = "Cannot read the card.";
            return insight;
        }
        if (!insight.volume->filesystem.empty())
            insight.filesystem = insight.volume->filesystem;
    }
    if (!insight.filesystem)
        insight.filesystem = IO::filesystemType(source);
    std::future<Remembered> loading; // while the card is read
    if (!history && store)
        loading = std::async(std::launch::async, [store, &isCancelled] { return store->recall(isCancelled); });
    std::optional<SourceScan> scanned = scan(insight, isCancelled);
    if (!scanned)
        return insight;
    stopIf(isCancelled);
    std::future<std::vector<Clip>> detecting =
        std::async(std::launch::async, [&files = scanned->files] { return ClipDetector::detect(files); });
    const CardFingerprint::Digests digests = CardFingerprint::compute(scanned->files);
    insight.fingerprint = digests.fingerprint;
    insight.shape = digests.shape;
    // The scan of a large card takes seconds, time enough to change cards.
    if (insight.volume && insight.volume->identity && world.identify(source) != insight.volume->identity) {
        insight.error = "The card was swapped while it was being read.";
        return insight;
    }
    Remembered loaded;
    if (loading.valid()) {
        loaded = loading.get();
        history = &loaded;
    }
    if (history)
        matchHistory(insight, *scanned, store, *history, isCancelled, world);
    insight.clips = detecting.get();
    stopIf(isCancelled);
    ReelSuggestion::FromClips names = ReelSuggestion::fromClips(insight.clips);
    insight.nameSuggestion = std::move(names.suggestion);
    insight.nameNote = std::move(names.note);
    insight.totalBytes = scanned->totalBytes();
    insight.fileCount = static_cast<std::int64_t>(scanned->files.size());
    for (const auto& entry : scanned->uncopied)
        insight.uncopied.push_back(entry.shown);
    insight.listing = std::move(*scanned);
    return insight;
}

} // namespace velmora::CardInspector
