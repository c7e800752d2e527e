#include "verify/VerificationTrace.h"

#include "memory/HistoryRecords.h"

#include <fmt/format.h>

#include <algorithm>

namespace velmora::VerificationTrace {

namespace {

std::string foundIn(const VerifyResult& result) {
    return fmt::format("mismatch {}, missing {}, unreadable {}, failed during the copy {}", result.changed.size(),
                       result.missing.size(), result.unreadable.size(), result.failedAtCopy.size());
}

bool holds(const HistoryEntry& entry, const std::string& cardPath) {
    return std::ranges::any_of(entry.destinations, [&](const HistoryDestination& destination) {
        return HistoryRecords::samePlace(destination.cardPath, cardPath);
    });
}

} // namespace

HistoryWrite enter(HistoryStore& history, const HistoryVerification& mark, const Log& log) {
    HistoryWrite worst = HistoryWrite::written;
    for (const HistoryEntry& entry : history.load()) {
        if (!holds(entry, mark.cardPath))
            continue;
        const HistoryWrite written =
            history.update(entry.id, [&](const HistoryEntry* present) -> std::optional<HistoryStore::Change> {
                if (!present)
                    return std::nullopt;
                return HistoryStore::Change{HistoryRecords::verified(*present, mark), std::nullopt};
            });
        worst = std::max(worst, written);
        if (log && (written == HistoryWrite::busy || written == HistoryWrite::failed))
            log("history (verify): not written — the card history does not know what was found in " + mark.cardPath);
    }
    return worst;
}

std::optional<HistoryVerification> of(const VerifyResult& result) {
    if (result.onOtherDisk)
        return std::nullopt;
    HistoryVerification mark;
    // The disk may be mounted elsewhere now than when the backup was made.
    mark.cardPath = result.recordedPath.value_or(result.cardPath);
    mark.volumeSerial = result.volumeSerial;
    const bool onlyAtCopy =
        result.changed.empty() && result.missing.empty() && result.unreadable.empty() && !result.failedAtCopy.empty();
    if (onlyAtCopy)
        return std::nullopt;
    if (!result.success()) {
        mark.failed = result.finished;
        mark.found = foundIn(result);
    } else if (result.clean()) {
        mark.clean = result.finished;
    } else {
        return std::nullopt;
    }
    return mark;
}

void record(HistoryStore& history, const VerifyResult& result, const Log& log) noexcept try {
    if (const auto mark = of(result))
        enter(history, *mark, log);
} catch (const std::exception& error) {
    if (log)
        log(std::string("history (verify): not written — ") + error.what());
}

} // namespace velmora::VerificationTrace
