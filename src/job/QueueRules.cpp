#include "job/QueueRules.h"

#include "base/Text.h"
#include "engine/Layout.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"

#include <algorithm>

namespace velmora {

namespace {

using Phase = JobStatus::Phase;

// The card is read, or read again to settle a doubt, until the last report of the copy is written.
bool copyStageOpen(Phase phase) { return phase <= Phase::reporting; }

bool sameIdentity(const std::string& a, const std::string& b) { return equalIgnoringCase(trim(a), trim(b)); }

} // namespace

bool PausedQueue::blocked(Phase phase, const std::vector<Other>& others) {
    return phase == Phase::waiting && std::ranges::any_of(others, [](const Other& other) {
               return other.paused && !JobStatus::isFinished(other.phase);
           });
}

bool QueueRules::cardInUse(const std::string& path, const std::vector<Other>& others) {
    return std::ranges::any_of(others, [&](const Other& other) {
        return copyStageOpen(other.phase) && equalIgnoringCase(other.source, path);
    });
}

std::optional<std::string> QueueRules::cardInDrive(const std::optional<std::string>& copied, const std::string& scanned,
                                                   const std::vector<Mounted>& volumes) {
    if (!copied || trim(*copied).empty())
        return std::nullopt;
    std::optional<std::string> found;
    for (const Mounted& volume : volumes) {
        if (!volume.identity || !sameIdentity(*volume.identity, *copied))
            continue;
        if (volume.path == scanned)
            return volume.path;
        if (!found)
            found = volume.path;
    }
    return found;
}

std::optional<std::string> QueueRules::ejectProblem(const std::optional<std::string>& copied,
                                                    const std::optional<std::string>& current, bool cardInUse) {
    if (!current)
        return std::string(notConnectedText);
    if (!copied || !equalIgnoringCase(*copied, *current))
        return std::string(otherCardText);
    return cardInUse ? std::optional<std::string>(inUseText) : std::nullopt;
}

bool QueueRules::measureBlocked(const std::vector<Phase>& phases) {
    return std::ranges::any_of(phases, [](Phase phase) { return phase != Phase::waiting && copyStageOpen(phase); });
}

std::string QueueRules::reportPath(const std::string& cardPath, const std::string& cardName) {
    return cardPath + "/" + std::string(Layout::reportDirName) + "/" + OffloadReport::htmlName(cardName, 1);
}

std::optional<std::string> QueueRules::firstReport(const std::vector<std::string>& cardPaths,
                                                   const std::string& cardName) {
    for (const std::string& cardPath : cardPaths)
        if (std::string path = reportPath(cardPath, cardName); !IO::isGone(path))
            return path;
    return std::nullopt;
}

} // namespace velmora
