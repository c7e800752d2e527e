#include "job/Remedy.h"

#include "records/OffloadReport.h"

#include <algorithm>

namespace velmora {

namespace {

// True when a copy is bad. A file that never came off the card has no copy: an append brings it.
bool hasBadCopies(const OffloadReport& report) {
    return std::ranges::any_of(report.files, [](const OffloadReport::FileEntry& file) {
        const bool never = file.sourceError && !file.xxh64;
        return !never && std::ranges::find(file.destinations, "failed") != file.destinations.end();
    });
}

} // namespace

Remedy remedyOf(const Promises::Evidence& evidence, const OffloadReport* report) {
    if (!evidence.onOtherVolume)
        return Remedy::otherDisk;
    if (evidence.whole && !evidence.whole->lost.empty())
        return Remedy::copyAgain;
    // Further folders, records that cannot be read, copies that earlier runs left bad: the whole has to be looked at.
    if (evidence.whole && (evidence.whole->error || !evidence.whole->elsewhere.empty()))
        return Remedy::inspect;
    if ((report != nullptr && hasBadCopies(*report)) || !evidence.failedVerifications.empty() || evidence.forgotten)
        return Remedy::repair;
    if (report == nullptr && evidence.whole && evidence.whole->state.failed > 0)
        return Remedy::inspect;
    return evidence.notCompared > 0 ? Remedy::compare : Remedy::append;
}

} // namespace velmora
