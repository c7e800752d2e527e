#pragma once

#include "job/JobStatus.h"
#include "job/Promises.h"

namespace velmora {

struct OffloadReport;

// The remedy for a card whose run has found this; the gravest need decides. `report` is that of the run; null where it
// made none. Only of use where a promise is denied.
Remedy remedyOf(const Promises::Evidence& evidence, const OffloadReport* report);

// True when copies turned out bad: then the files on the card are needed again, whatever was promised before.
constexpr bool needsCard(Remedy remedy) noexcept {
    return remedy == Remedy::repair || remedy == Remedy::copyAgain || remedy == Remedy::otherDisk;
}

} // namespace velmora
