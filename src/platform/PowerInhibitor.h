#pragma once

#include "base/Errors.h"

#include <string>

namespace velmora {

// Keeps the machine awake for as long as it lives: no sleep, no idle action, and a closed lid changes nothing. Where
// the login manager is absent or says no, work goes on without it: that is one line in the log and never a failure.
class PowerInhibitor {
public:
    // `why` is shown by desktop tools ("Copying A001"). Waits for the login manager for at most five seconds.
    explicit PowerInhibitor(const std::string& why, const Log& log = {});
    ~PowerInhibitor();
    PowerInhibitor(const PowerInhibitor&) = delete;
    PowerInhibitor& operator=(const PowerInhibitor&) = delete;

    bool isHeld() const noexcept;

private:
    int fd_ = -1; // the lock ends when this is closed, also when the process dies
};

} // namespace velmora
