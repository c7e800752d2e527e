#include "verify/VerificationTrace.h"

#include "memory/HistoryRecords.h"
#include "memory/SameFolder.h"

#include <fmt/format.h>

#include <algorithm>

namespace velmora::VerificationTrace {

namespace {

std::string foundIn(const VerifyResult& result) {
    return fmt::format("mismatch {}, missing {}, unreadable {}, failed during the copy {}", result.changed.size(),
                       result.missing.size(), result.unreadable.size(), result.failedAtCopy.size());
}

// Paths in an entry may be old, so a mark may reach a wrong entry. That does no harm: the mark names its disk.
bool holds(const HistoryEntry& entry, const HistoryVerification& mark) {
    return std::ranges::any_of(entry.destinations, [&](const HistoryDestination& destination) {
        return HistoryRecords::samePlace(destination.cardPath, mark.cardPath) ||
               (mark.volumeSerial &&
                isSameFolder({destination.cardPath, mark.volumeSerial}, mark.cardPath, mark.volumeSerial));
    });
}

} // namespace

HistoryWrite enter(HistoryStore& history, const HistoryVerification& mark, const Log& log) {
    const HistoryWrite kept = history.enter(mark);
    for (const HistoryEntry& entry : history.load()) {
        if (!holds(entry, mark))
            continue;
        const HistoryWrite written =
            history.update(entry.id, [&](const HistoryEntry* present) -> std::optional<HistoryStore::Change> {
                if (!present)
                    return std::nullopt;
                return HistoryStore::Change{HistoryRecords::verified(*present, mark), std::nullopt};
            });
        if (log && (written == HistoryWrite::busy || written == HistoryWrite::failed))
            log("history (verify): not written — the entry of " + mark.cardPath + " does not know what was found");
    }
    return kept;
}

std::optional<HistoryVerification> of(const VerifyResult& result) {
    if (result.onOtherDisk)
        return std::nullopt;
    HistoryVerification mark;
    mark.cardPath = result.cardPath;
    mark.volumeSerial = result.volumeSerial;
    const bool onlyAtCopy =
        result.changed.empty() && result.missing.empty() && result.unreadable.empty() && !result.failedAtCopy.empty();
    if (onlyAtCopy)
        return std::nullopt;
    if (!result.success()) {
        mark.failed = result.finished;
        mark.found = foundIn(result);
    } else if (result.verdict() == VerifyResult::Verdict::clean) {
        mark.clean = result.finished;
    } else {
        return std::nullopt;
    }
    return mark;
}

std::optional<std::string> record(HistoryStore& history, const VerifyResult& result, const Log& log) noexcept try {
    const auto mark = of(result);
    if (!mark)
        return std::nullopt;
    switch (enter(history, *mark, log)) {
    case HistoryWrite::written:
    case HistoryWrite::unchanged:
        return std::nullopt;
    case HistoryWrite::newer:
        return "a newer version of Velmora has written it";
    case HistoryWrite::busy:
        return "it was busy for too long";
    case HistoryWrite::failed:
        break;
    }
    return "it could not be written";
} catch (const std::exception& error) {
    return error.what();
}

} // namespace velmora::VerificationTrace
