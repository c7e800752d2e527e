#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace velmora {

// One pause for all workers of a job. A worker stops only where it asks the gate, between two files or clips; the
// gate "stands" while a pause is asked for, at least one worker waits and none works. Only standing time counts as
// paused. All members may be called from any thread.
class PauseGate {
public:
    // Monotonic seconds.
    using Clock = std::function<double()>;

    // One thread that takes part. Counts as working until it waits or leaves. The gate outlives its workers.
    class Worker {
    public:
        ~Worker() { leave(); }
        Worker(const Worker&) = delete;
        Worker& operator=(const Worker&) = delete;

        // Waits while the gate is paused; false when cancelled. `isCancelled` may be empty.
        bool waitWhilePaused(const IsCancelled& isCancelled) { return owner_.wait(this, isCancelled); }
        // Takes the worker out for good; a second call does nothing.
        void leave() { owner_.leave(*this); }
        bool isHolding() const noexcept { return waitingNow_.load(std::memory_order_relaxed); }

    private:
        friend class PauseGate;
        explicit Worker(PauseGate& owner) : owner_(owner) {}
        PauseGate& owner_;
        bool busy_ = true;  // guarded by the owner's lock
        bool gone_ = false; // guarded by the owner's lock
        std::atomic<bool> waitingNow_{false};
    };

    // While it lives, the worker (none: nobody) only waits for others and does not count as working.
    class Resting {
    public:
        explicit Resting(Worker* worker) : worker_(worker) { tell(false); }
        ~Resting() { tell(true); }
        Resting(const Resting&) = delete;
        Resting& operator=(const Resting&) = delete;

    private:
        void tell(bool busy) {
            if (worker_)
                worker_->owner_.setBusy(*worker_, busy);
        }
        Worker* const worker_;
    };

    PauseGate();
    explicit PauseGate(Clock clock);

    std::unique_ptr<Worker> work();
    // For a thread that is not a worker.
    bool waitWhilePaused(const IsCancelled& isCancelled) { return wait(nullptr, isCancelled); }

    void pause();
    void resume();
    void end();  // opens the gate for good; later pauses do nothing
    void wake(); // lets the waiting threads ask `isCancelled` at once

    bool isPaused() const;
    bool isHeld() const;            // the gate stands
    std::int64_t requests() const;  // pauses asked for
    std::int64_t holdCount() const; // times any worker stopped at the gate
    double pausedTotal() const;     // seconds of all stands, a running one included

private:
    bool wait(Worker* worker, const IsCancelled& isCancelled);
    bool enter(Worker* worker);
    bool waitOnce();
    void exit(Worker* worker) noexcept;
    void leave(Worker& worker);
    void setBusy(Worker& worker, bool busy);
    void recount() REQUIRES(mutex_);

    mutable Mutex mutex_;
    Condition changed_;
    Clock clock_;
    bool paused_ GUARDED_BY(mutex_) = false;
    bool frozen_ GUARDED_BY(mutex_) = false;
    std::int64_t holding_ GUARDED_BY(mutex_) = 0;
    std::int64_t busy_ GUARDED_BY(mutex_) = 0;
    std::optional<double> standingSince_ GUARDED_BY(mutex_);
    double total_ GUARDED_BY(mutex_) = 0;
    std::int64_t holdCount_ GUARDED_BY(mutex_) = 0;
    std::int64_t requestCount_ GUARDED_BY(mutex_) = 0;
};

} // namespace velmora
