#pragma once

#include "base/Mutex.h"

#include <chrono>
#include <cstdint>
#include <string_view>

namespace velmora {

// Follows the `-progress` lines of ffmpeg ("frame=12", "out_time_us=480000", "progress=end") and knows since when
// nothing has moved. Any thread.
class ProgressWatch {
public:
    using Clock = std::chrono::steady_clock;

    explicit ProgressWatch(Clock::time_point start = Clock::now()) : lastAdvance_(start) {}

    // True when the line tells of a higher frame or a later time than any before it.
    bool take(std::string_view line, Clock::time_point now = Clock::now());
    // Something else has shown that work goes on.
    void touch(Clock::time_point now = Clock::now());

    double secondsIdle(Clock::time_point now = Clock::now()) const; // since the last advance
    bool advancedOnce() const;
    std::int64_t frame() const;
    double outTime() const; // seconds

private:
    mutable Mutex mutex_;
    std::int64_t frame_ GUARDED_BY(mutex_) = 0;
    std::int64_t outTime_ GUARDED_BY(mutex_) = 0; // microseconds
    Clock::time_point lastAdvance_ GUARDED_BY(mutex_);
    bool advancedOnce_ GUARDED_BY(mutex_) = false;
};

} // namespace velmora
