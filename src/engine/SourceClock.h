#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace velmora {

// Nanoseconds of a clock that never goes back.
inline std::int64_t monotonicNanos() noexcept {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The time that the reader has waited for the card, or stood in a pause. The idle time of a disk's queue is counted
// without it. The reader's thread enters and leaves, any thread asks.
class SourceClock {
public:
    class Visit {
    public:
        // A visit inside another one is not counted twice.
        explicit Visit(SourceClock& clock) noexcept : clock_(clock), outermost_(clock.since_.load() == 0) {
            if (outermost_)
                clock_.since_.store(monotonicNanos());
        }
        ~Visit() {
            if (!outermost_)
                return;
            const std::int64_t began = clock_.since_.exchange(leaving);
            clock_.total_.fetch_add(monotonicNanos() - began);
            clock_.since_.store(0);
        }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

    private:
        SourceClock& clock_;
        const bool outermost_;
    };

    std::int64_t at(std::int64_t now) const noexcept {
        // The visit is read before and after the total, since it may be moving into the total just now.
        while (true) {
            const std::int64_t since = since_.load();
            const std::int64_t total = total_.load();
            if (since != leaving && since_.load() == since)
                return since == 0 || now < since ? total : total + (now - since);
        }
    }

private:
    static constexpr std::int64_t leaving = -1; // for the few statements that move a visit into the total
    std::atomic<std::int64_t> total_{0};
    std::atomic<std::int64_t> since_{0}; // 0: not at the source
};

} // namespace velmora
