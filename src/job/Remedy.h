#pragma once

#include "job/JobStatus.h"
#include "job/Promises.h"

namespace velmora {

struct OffloadReport;

// What brings a card on whose run has found this out; the gravest need decides. `report` is that of the run; null where
// it made none. Only of use where a promise is denied.
Remedy remedyOf(const Promises::Evidence& evidence, const OffloadReport* report);

// Copies turned out bad: whatever was said of the card before, its files are needed again.
constexpr bool needsCard(Remedy remedy) noexcept {
    return remedy == Remedy::repair || remedy == Remedy::copyAgain || remedy == Remedy::otherDisk;
}

} // namespace velmora
