#include "base/ProgressWatch.h"

#include <algorithm>
#include <charconv>

namespace velmora {

namespace {

// 0 for "N/A" and for anything else that is no number: it raises nothing.
std::int64_t numberAfter(std::string_view line, std::string_view key) {
    std::int64_t number = 0;
    if (line.starts_with(key))
        std::from_chars(line.data() + key.size(), line.data() + line.size(), number);
    return number;
}

} // namespace

bool ProgressWatch::take(std::string_view line, Clock::time_point now) {
    const std::int64_t frame = numberAfter(line, "frame=");
    const std::int64_t time = numberAfter(line, "out_time_us=");
    MutexLock lock(mutex_);
    const bool advanced = frame > frame_ || time > outTime_ || line == "progress=end";
    frame_ = std::max(frame, frame_);
    outTime_ = std::max(time, outTime_);
    if (advanced) {
        lastAdvance_ = now;
        advancedOnce_ = true;
    }
    return advanced;
}

void ProgressWatch::touch(Clock::time_point now) {
    MutexLock lock(mutex_);
    lastAdvance_ = now;
}

double ProgressWatch::secondsIdle(Clock::time_point now) const {
    MutexLock lock(mutex_);
    return std::chrono::duration<double>(now - lastAdvance_).count();
}

bool ProgressWatch::advancedOnce() const {
    MutexLock lock(mutex_);
    return advancedOnce_;
}

std::int64_t ProgressWatch::frame() const {
    MutexLock lock(mutex_);
    return frame_;
}

double ProgressWatch::outTime() const {
    MutexLock lock(mutex_);
    return static_cast<double>(outTime_) / 1e6;
}

} // namespace velmora
