#pragma once

#include "base/Flag.h"
#include "base/Mutex.h"

#include <cstdint>

namespace velmora {

class WatchedThread;

// Decides who may read the primary's disk: while a clip is read for its render, the background threads of that disk
// wait. Also tells all of them that the session has stopped. Any thread.
class TapTraffic {
public:
    void enter() EXCLUDES(lock_);  // a clip begins
    void leave() EXCLUDES(lock_);  // and ends
    void finish() EXCLUDES(lock_); // from now on no clip makes anybody wait
    void stop() EXCLUDES(lock_);
    bool isStopped() const noexcept { return stopped_.isSet(); }

    // A clip, from its beginning to its end.
    class Passage {
    public:
        explicit Passage(TapTraffic& traffic) : traffic_(traffic) { traffic_.enter(); }
        ~Passage() { traffic_.leave(); }
        Passage(const Passage&) = delete;
        Passage& operator=(const Passage&) = delete;

    private:
        TapTraffic& traffic_;
    };

    // Waits until no clip is read. False when the thread shall stop.
    bool letPass(WatchedThread& thread) EXCLUDES(lock_);

private:
    bool isBusy() const EXCLUDES(lock_);
    bool isBusyAfter(std::int64_t milliseconds) EXCLUDES(lock_);

    Flag stopped_;
    mutable Mutex lock_;
    Condition idle_;
    std::int64_t taps_ GUARDED_BY(lock_) = 0;
    bool finished_ GUARDED_BY(lock_) = false;
};

} // namespace velmora
