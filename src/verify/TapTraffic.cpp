#include "verify/TapTraffic.h"

#include "verify/WatchedThread.h"

#include <algorithm>
#include <chrono>

namespace velmora {

void TapTraffic::enter() {
    const MutexLock hold(lock_);
    taps_ += finished_ ? 0 : 1;
}

void TapTraffic::leave() {
    const MutexLock hold(lock_);
    taps_ = std::max<std::int64_t>(0, taps_ - 1); // a lease may end after `finish`
    idle_.notifyAll();
}

void TapTraffic::finish() {
    const MutexLock hold(lock_);
    finished_ = true;
    taps_ = 0;
    idle_.notifyAll();
}

void TapTraffic::stop() {
    stopped_.set();
    const MutexLock hold(lock_);
    idle_.notifyAll();
}

bool TapTraffic::isBusy() const {
    const MutexLock hold(lock_);
    return taps_ > 0;
}

bool TapTraffic::isBusyAfter(std::int64_t milliseconds) {
    const MutexLock hold(lock_);
    if (taps_ > 0 && !isStopped())
        idle_.waitFor(lock_, std::chrono::milliseconds(milliseconds));
    return taps_ > 0;
}

bool TapTraffic::letPass(WatchedThread& thread) {
    const auto stops = [&] { return isStopped() || thread.isGivenUp(); };
    if (!stops() && isBusy()) {
        const WatchedThread::Waiting waiting(thread);
        while (!stops() && isBusyAfter(100)) {
        }
    }
    return !stops();
}

} // namespace velmora
