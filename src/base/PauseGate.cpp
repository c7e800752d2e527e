#include "base/PauseGate.h"

#include <chrono>
#include <utility>

namespace velmora {

namespace {

// Short, so that a cancel is seen soon even where nobody wakes the gate.
constexpr std::chrono::milliseconds waitStep{50};

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

PauseGate::PauseGate() : PauseGate(monotonicSeconds) {}

PauseGate::PauseGate(Clock clock) : clock_(std::move(clock)) {}

std::unique_ptr<PauseGate::Worker> PauseGate::work() {
    std::unique_ptr<Worker> worker(new Worker(*this));
    MutexLock lock(mutex_);
    ++busy_;
    recount();
    return worker;
}

void PauseGate::pause() {
    MutexLock lock(mutex_);
    if (frozen_ || paused_)
        return;
    ++requestCount_;
    paused_ = true;
    recount();
}

void PauseGate::resume() {
    MutexLock lock(mutex_);
    if (!paused_)
        return;
    paused_ = false;
    recount();
    changed_.notifyAll();
}

void PauseGate::end() {
    MutexLock lock(mutex_);
    paused_ = false;
    frozen_ = true;
    recount();
    changed_.notifyAll();
}

void PauseGate::wake() {
    MutexLock lock(mutex_);
    changed_.notifyAll();
}

bool PauseGate::isPaused() const {
    MutexLock lock(mutex_);
    return paused_;
}

bool PauseGate::isHeld() const {
    MutexLock lock(mutex_);
    return standingSince_.has_value();
}

std::int64_t PauseGate::requests() const {
    MutexLock lock(mutex_);
    return requestCount_;
}

std::int64_t PauseGate::holdCount() const {
    MutexLock lock(mutex_);
    return holdCount_;
}

double PauseGate::pausedTotal() const {
    MutexLock lock(mutex_);
    return total_ + (standingSince_ ? clock_() - *standingSince_ : 0.0);
}

bool PauseGate::wait(Worker* worker, const IsCancelled& isCancelled) {
    const auto cancelled = [&] { return isCancelled && isCancelled(); };
    if (cancelled())
        return false;
    if (!enter(worker))
        return true;
    // `isCancelled` is foreign code: it runs outside the lock, and whatever it throws leaves the counts right.
    struct Exit {
        PauseGate& gate;
        Worker* worker;
        ~Exit() { gate.exit(worker); }
    } const exit{*this, worker};
    while (waitOnce())
        if (cancelled())
            return false;
    return !cancelled(); // the gate also opens because the job ends
}

bool PauseGate::enter(Worker* worker) {
    MutexLock lock(mutex_);
    if (!paused_)
        return false;
    ++holding_;
    ++holdCount_;
    if (worker) {
        if (std::exchange(worker->busy_, false))
            --busy_;
        worker->waitingNow_ = true;
    }
    recount();
    return true;
}

// True while the pause lasts.
bool PauseGate::waitOnce() {
    MutexLock lock(mutex_);
    if (paused_)
        changed_.waitFor(mutex_, waitStep);
    return paused_;
}

void PauseGate::exit(Worker* worker) noexcept {
    MutexLock lock(mutex_);
    --holding_;
    if (worker) {
        worker->waitingNow_ = false;
        if (!worker->gone_ && !std::exchange(worker->busy_, true))
            ++busy_;
    }
    recount();
}

void PauseGate::leave(Worker& worker) {
    MutexLock lock(mutex_);
    if (std::exchange(worker.gone_, true))
        return;
    if (std::exchange(worker.busy_, false))
        --busy_;
    recount();
}

void PauseGate::setBusy(Worker& worker, bool busy) {
    MutexLock lock(mutex_);
    if (worker.gone_ || worker.busy_ == busy)
        return;
    worker.busy_ = busy;
    busy_ += busy ? 1 : -1;
    recount();
}

// Keeps the stand time: it runs exactly while a pause is asked for, a worker waits and none works.
void PauseGate::recount() {
    const bool stands = paused_ && holding_ > 0 && busy_ == 0;
    if (stands && !standingSince_) {
        standingSince_ = clock_();
    } else if (!stands && standingSince_) {
        total_ += clock_() - *standingSince_;
        standingSince_.reset();
    }
}

} // namespace velmora
