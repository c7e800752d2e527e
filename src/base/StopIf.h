#pragma once

#include "base/Errors.h"

namespace velmora {

// Throws Cancelled when the user asked to stop.
inline void stopIf(const IsCancelled& isCancelled) {
    if (isCancelled && isCancelled())
        throw Cancelled();
}

} // namespace velmora
