#include "job/HistoryKeeper.h"

#include "base/Msg.h"
#include "base/Product.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "disks/VolumeSerial.h"
#include "platform/VolumeFacts.h"
#include "verify/VerificationTrace.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

namespace velmora {

namespace {
// Seconds to wait for the history before an append looks for its entry. Without the entry it only makes a new one.
constexpr double lookupSeconds = 2.0;

std::optional<std::string> failedVerification(const Remembered& history, const BackupPlace& place) {
    const auto last = history.verificationOf(place.cardPath, place.volumeSerial);
    if (!last || !last->failed)
        return std::nullopt;
    return fmt::format("{} did not pass its verification of {} ({}) — do not format the card; run Repair ({} repair), "
                       "or verify the folder again.",
                       place.cardPath, TimeText::local(*last->failed, "%Y-%m-%d %H:%M"), last->found, Product::cli);
}

std::string capital(std::string text) {
    text[0] = 'T'; // "the card history …"
    return text;
}

std::string forgottenText(const HistoryGap& gap, const std::string& folders) {
    return fmt::format("{}. It may have known better of this backup, and the copies in {} were not all read since — do "
                       "not format the card; verify them ({} verify) or run Repair ({} repair){}.",
                       capital(gap.text()), folders, Product::cli, Product::cli,
                       gap.error.empty() ? ", or delete that file" : "");
}

std::string notKeptText(const std::vector<std::string>& cardPaths, const std::string& why) {
    return fmt::format("The card history could not be told that every copy in {} was read and found good ({}) — what "
                       "it knew before against these folders still stands in it, and denies the next promise. Verify "
                       "them ({} verify) when it can be written again.",
                       join(cardPaths, ", "), why, Product::cli);
}

HistoryKeeper::Known knownOf(const Remembered& history, const std::vector<std::string>& cardPaths) {
    HistoryKeeper::Known known;
    for (const std::string& cardPath : cardPaths) {
        const BackupPlace place{cardPath, VolumeFacts::volumeSerialText(cardPath)};
        if (auto failed = failedVerification(history, place))
            known.failedVerifications.emplace(RelativePath::withoutTrailingSlash(cardPath), std::move(*failed));
        const auto last = history.verificationOf(cardPath, place.volumeSerial);
        const auto clean = last ? last->clean : std::nullopt;
        known.lastClean = &cardPath == &cardPaths.front() ? clean : std::min(known.lastClean, clean); // none is least
    }
    known.gaps = history.gaps;
    return known;
}
} // namespace

HistoryKeeper::HistoryKeeper(HistoryRecorder& recorder, std::string folder, bool records, const std::string& source,
                             Log log)
    : recorder_(recorder), folder_(std::move(folder)), records_(records), log_(std::move(log)) {
    if (VolumeFacts::isVolumeRoot(source))
        volume_ = cardVolumeOf(source);
}

void HistoryKeeper::record(const std::string& what, const std::function<void()>& delayed,
                           HistoryRecorder::Write write) {
    if (!records_)
        return;
    // This may run long after the job is gone, so it captures nothing but the log.
    const auto done = [log = log_](const std::optional<std::string>& lost) {
        if (lost && log)
            log(Msg::historyLost(*lost));
    };
    recorder_.record(what, folder_, log_, delayed, done, std::move(write));
}

void HistoryKeeper::start(const OffloadPlan& plan, const std::function<void()>& delayed) {
    HistoryStore::Change change = HistoryRecords::started(plan, volume_, Timestamp::now());
    id_ = change.entry.id;
    isNew_ = true;
    record("start", delayed, [id = id_, change = std::move(change)](HistoryStore& store) {
        return store.update(id, [&](const HistoryEntry*) { return std::optional(change); });
    });
}

HistoryKeeper::Known HistoryKeeper::look(const std::vector<std::string>& cardPaths, const IsCancelled& isCancelled) {
    HistoryStore store(folder_, lookupSeconds, HistoryStore::maxEntriesDefault, log_);
    const Remembered history = store.recall(isCancelled);
    const HistoryEntry* entry = HistoryRecords::entryOf(history.entries, cardPaths);
    isNew_ = entry == nullptr;
    id_ = entry ? entry->id : HistoryStore::newId(Timestamp::now());
    wasUnfinished_ = entry && entry->unfinished;
    Known known = knownOf(history, cardPaths);
    if (entry && entry->card)
        known.medium = entry->card->key();
    known.runs = AppendPlanner::pastRuns(history.entries, cardPaths);
    return known;
}

HistoryKeeper::Known HistoryKeeper::glance(const std::vector<std::string>& cardPaths) const {
    return knownOf(HistoryStore(folder_, 0).recall(), cardPaths);
}

std::vector<std::string> HistoryKeeper::against(const std::vector<BackupPlace>& places,
                                                const std::optional<Timestamp>& lastRead) const {
    std::vector<std::string> sentences;
    if (places.empty())
        return sentences;
    const Remembered history = HistoryStore(folder_, lookupSeconds).recall();
    for (const BackupPlace& place : places) {
        const auto last = history.verificationOf(place.cardPath, place.volumeSerial);
        if (auto sentence = failedVerification(history, place))
            sentences.push_back(std::move(*sentence));
        else if (const HistoryGap* gap = history.hides(std::max(lastRead, last ? last->clean : std::nullopt)))
            sentences.push_back(forgottenText(*gap, place.cardPath));
    }
    return sentences;
}

std::optional<std::string> HistoryKeeper::Known::forgotten(const std::vector<CardRecord>& folders,
                                                           const std::optional<Timestamp>& lastRead) const {
    const Remembered history{{}, {}, gaps};
    const HistoryGap* gap = history.hides(std::max(lastRead, lastClean));
    if (!gap)
        return std::nullopt;
    std::vector<std::string> paths;
    for (const CardRecord& folder : folders)
        paths.push_back(folder.cardPath);
    return forgottenText(*gap, join(paths, ", "));
}

std::vector<std::string> HistoryKeeper::Known::losses() const {
    std::vector<std::string> sentences;
    for (const HistoryGap& gap : gaps)
        sentences.push_back(capital(gap.text()) + ". This copy does not depend on it; what it knew of earlier backups "
                                                  "cannot be asked.");
    return sentences;
}

void HistoryKeeper::reopen(const std::function<void()>& delayed) {
    if (id_.empty() || isNew_)
        return; // nothing to mark; `finish` will make the entry
    record("start", delayed, [id = id_](HistoryStore& store) {
        return store.update(id, [](const HistoryEntry* present) -> std::optional<HistoryStore::Change> {
            if (!present || present->unfinished)
                return std::nullopt;
            return HistoryStore::Change{HistoryRecords::reopened(*present), std::nullopt};
        });
    });
}

void HistoryKeeper::finish(const OffloadReport& report, std::vector<SourceFile> card,
                           const std::optional<BackupCheck>& wholeCard, const HistoryRecords::Verdict& verdict,
                           const std::function<void()>& delayed) {
    if (id_.empty())
        return;
    record(report.kind.value_or("copy"), delayed,
           [id = id_, report, card = std::move(card), wholeCard, verdict, volume = volume_](HistoryStore& store) {
               return store.update(id, [&](const HistoryEntry* present) -> std::optional<HistoryStore::Change> {
                   const auto stored = present ? store.readFileList(*present) : std::nullopt;
                   return HistoryRecords::finished(present, id, report, card, volume, stored, wholeCard, verdict);
               });
           });
}

void HistoryKeeper::passed(std::vector<HistoryVerification> folders, const std::function<void()>& delayed,
                           const std::function<void(const std::string&)>& notKept) {
    if (folders.empty())
        return;
    std::vector<std::string> paths;
    for (const HistoryVerification& folder : folders)
        paths.push_back(folder.cardPath);
    struct Outcome {
        bool waits = false; // for a busy history: it may end long after this job is gone, and only the log can be told
        std::string sentence;
    };
    const auto outcome = std::make_shared<Outcome>();
    const auto nowWaits = [&] {
        outcome->waits = true;
        delayed();
    };
    const auto done = [log = log_, outcome, paths](const std::optional<std::string>& lost) {
        if (lost && !outcome->waits)
            outcome->sentence = notKeptText(paths, *lost);
        else if (lost && log)
            log(notKeptText(paths, *lost));
    };
    const auto write = [folders = std::move(folders), log = log_](HistoryStore& store) {
        HistoryWrite worst = HistoryWrite::written;
        for (const HistoryVerification& folder : folders)
            worst = std::max(worst, VerificationTrace::enter(store, folder, log));
        if (worst == HistoryWrite::newer)
            throw std::runtime_error("a newer version of Velmora has written it");
        return worst;
    };
    recorder_.record("verify", folder_, log_, nowWaits, done, write);
    if (!outcome->waits && !outcome->sentence.empty())
        notKept(outcome->sentence);
}

void HistoryKeeper::failed() {
    if (!isNew_)
        return forget();
    if (id_.empty())
        return;
    record("copy", {}, [id = id_](HistoryStore& store) {
        return store.update(id, [](const HistoryEntry* present) -> std::optional<HistoryStore::Change> {
            if (!present)
                return std::nullopt;
            return HistoryStore::Change{HistoryRecords::failed(*present, Timestamp::now()), std::nullopt};
        });
    });
}

void HistoryKeeper::forget() {
    if (id_.empty())
        return;
    record("start", {}, [id = id_, isNew = isNew_, wasUnfinished = wasUnfinished_](HistoryStore& store) {
        if (isNew)
            return store.remove(id);
        return store.update(id, [&](const HistoryEntry* present) -> std::optional<HistoryStore::Change> {
            if (!present || wasUnfinished)
                return std::nullopt;
            HistoryEntry closed = *present;
            closed.unfinished = false;
            return HistoryStore::Change{closed, std::nullopt};
        });
    });
}

} // namespace velmora
