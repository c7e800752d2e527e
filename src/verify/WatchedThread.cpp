#include "verify/WatchedThread.h"

#include "base/ThreadName.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace velmora {

namespace {

// Disks make progress, or hang, on the scale of seconds: looking this often is enough.
constexpr std::chrono::milliseconds round{50};

} // namespace

std::shared_ptr<WatchedThread> WatchedThread::start(std::string_view name, std::unique_ptr<PauseGate::Worker> worker,
                                                    Body body) {
    const std::shared_ptr<WatchedThread> self(new WatchedThread(std::move(worker)));
    // Nobody can join a thread that hangs, so it is waited for by `done_`.
    std::thread([self, name = std::string(name), work = std::move(body)]() mutable {
        nameThisThread(name);
        try {
            work(*self);
        } catch (...) { // whatever was to be told of it is in what the body shares
        }
        work = nullptr; // frees what it owns before others learn of the end
        self->end();
    }).detach();
    return self;
}

void WatchedThread::moved(std::int64_t by) {
    const MutexLock hold(lock_);
    progress_ += by;
}

bool WatchedThread::isGivenUp() const {
    const MutexLock hold(lock_);
    return givenUp_;
}

void WatchedThread::setCurrent(std::string file) {
    const MutexLock hold(lock_);
    current_ = std::move(file);
}

void WatchedThread::setWaiting(bool waiting) {
    const MutexLock hold(lock_);
    waiting_ = waiting;
    ++progress_;
}

bool WatchedThread::waitWhilePaused(const IsCancelled& isCancelled) {
    const Waiting waiting(*this);
    PauseGate::Worker* worker = nullptr;
    {
        const MutexLock hold(lock_);
        if (givenUp_)
            return false;
        worker = worker_.get(); // stays: a thread that waits is not given up
    }
    const auto stops = [&] { return (isCancelled && isCancelled()) || isGivenUp(); };
    return worker == nullptr ? !stops() : worker->waitWhilePaused(stops);
}

void WatchedThread::end() {
    const MutexLock hold(lock_);
    worker_.reset(); // under the lock: once `done_` is seen, the gate may go
    current_.reset();
    done_ = true;
    ended_.notifyAll();
}

bool WatchedThread::isOver() const {
    const MutexLock hold(lock_);
    return done_ || givenUp_;
}

std::optional<std::string> WatchedThread::current() const {
    const MutexLock hold(lock_);
    return givenUp_ ? std::nullopt : current_;
}

bool WatchedThread::giveUp() {
    const MutexLock hold(lock_);
    if (done_ || givenUp_ || waiting_)
        return false;
    givenUp_ = true;
    worker_.reset();
    return true;
}

std::int64_t WatchedThread::life() {
    const MutexLock hold(lock_);
    return waiting_ ? ++progress_ : progress_;
}

void WatchedThread::awaitEnd(std::chrono::milliseconds atMost) {
    const MutexLock hold(lock_);
    if (!done_ && !givenUp_)
        ended_.waitFor(lock_, atMost);
}

void WatchedThread::await(const Threads& threads, std::chrono::milliseconds limit,
                          const std::function<bool()>& isExcused, const std::function<void(std::size_t)>& givenUp) {
    using Clock = std::chrono::steady_clock;
    struct Seen {
        std::int64_t life = -1;
        Clock::time_point when;
    };
    std::vector<Seen> seen(threads.size());
    while (true) {
        const bool excused = isExcused && isExcused();
        WatchedThread* running = nullptr;
        for (std::size_t i = 0; i < threads.size(); ++i) {
            WatchedThread& thread = *threads[i];
            if (thread.isOver())
                continue;
            running = &thread;
            const Clock::time_point now = Clock::now();
            if (const std::int64_t life = thread.life(); life != seen[i].life || excused)
                seen[i] = {life, now};
            else if (now - seen[i].when >= limit && thread.giveUp() && givenUp)
                givenUp(i);
        }
        if (running == nullptr)
            return;
        running->awaitEnd(round);
    }
}

} // namespace velmora
