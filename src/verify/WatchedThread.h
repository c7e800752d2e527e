#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "base/PauseGate.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// A thread that works on a disk, and may hang there for good. Whoever waits for it sees whether it makes progress, and
// gives it up when it makes none. Then it runs on alone, and nothing that it still does may count. So its body owns all
// that it uses.
class WatchedThread {
public:
    using Body = std::function<void(WatchedThread&)>;
    // What the body throws is lost. `worker` may be null; it is signed off when the body has ended or is given up.
    static std::shared_ptr<WatchedThread> start(std::string_view name, std::unique_ptr<PauseGate::Worker> worker,
                                                Body body);
    WatchedThread(const WatchedThread&) = delete;
    WatchedThread& operator=(const WatchedThread&) = delete;

    // For the body:
    void moved(std::int64_t by = 1) EXCLUDES(lock_);
    bool isGivenUp() const EXCLUDES(lock_);
    void setCurrent(std::string file) EXCLUDES(lock_);
    // Waits while the gate of its worker is paused. False when the thread shall stop.
    bool waitWhilePaused(const IsCancelled& isCancelled) EXCLUDES(lock_);
    // While this lives, the thread waits on purpose and is not given up; its end counts as progress.
    class Waiting {
    public:
        explicit Waiting(WatchedThread& thread) : thread_(thread) { thread_.setWaiting(true); }
        ~Waiting() { thread_.setWaiting(false); }
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;

    private:
        WatchedThread& thread_;
    };

    // For all others:
    bool isOver() const EXCLUDES(lock_); // it has ended or is given up
    // The file that it works on; none once it is over.
    std::optional<std::string> current() const EXCLUDES(lock_);

    using Threads = std::vector<std::shared_ptr<WatchedThread>>;
    // Waits until all are over. One that has not moved for `limit` is given up, and `givenUp` called with its number.
    // `isExcused`, asked in every round, says that nobody needs to move.
    static void await(const Threads& threads, std::chrono::milliseconds limit, const std::function<bool()>& isExcused,
                      const std::function<void(std::size_t)>& givenUp);

private:
    explicit WatchedThread(std::unique_ptr<PauseGate::Worker> worker) : worker_(std::move(worker)) {}
    void setWaiting(bool waiting) EXCLUDES(lock_);
    void end() EXCLUDES(lock_);
    bool giveUp() EXCLUDES(lock_);
    // A number that changes from call to call while the thread makes progress or waits on purpose.
    std::int64_t life() EXCLUDES(lock_);
    void awaitEnd(std::chrono::milliseconds atMost) EXCLUDES(lock_);

    mutable Mutex lock_;
    Condition ended_;
    std::unique_ptr<PauseGate::Worker> worker_ GUARDED_BY(lock_); // the gate may be gone once the thread is over
    std::int64_t progress_ GUARDED_BY(lock_) = 0;
    bool waiting_ GUARDED_BY(lock_) = false;
    bool givenUp_ GUARDED_BY(lock_) = false;
    bool done_ GUARDED_BY(lock_) = false;
    std::optional<std::string> current_ GUARDED_BY(lock_);
};

} // namespace velmora
