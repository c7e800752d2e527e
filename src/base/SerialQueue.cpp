#include "base/SerialQueue.h"

#include "base/ThreadName.h"

#include <algorithm>
#include <stdexcept>

namespace velmora {

namespace {

std::string errorText(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

} // namespace

SerialQueue::SerialQueue(std::string name, Log log) : name_(std::move(name)), log_(std::move(log)) {
    {
        MutexLock lock(mutex_);
        capacity_ = 64;
        ring_ = std::make_unique<InlineTask[]>(capacity_);
    }
    thread_ = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue() {
    {
        MutexLock lock(mutex_);
        ending_ = true;
        changed_.notifyAll();
    }
    thread_.join();
    MutexLock lock(mutex_);
    if (!firstError_ || !log_)
        return;
    try {
        log_(name_ + ": " + errorText(firstError_));
    } catch (...) { // a log that fails has nobody to tell
    }
}

void SerialQueue::push(InlineTask task) {
    MutexLock lock(mutex_);
    if (count_ == capacity_) {
        auto larger = std::make_unique<InlineTask[]>(capacity_ * 2);
        for (std::size_t i = 0; i < count_; ++i)
            larger[i] = std::move(ring_[(first_ + i) % capacity_]);
        ring_ = std::move(larger);
        capacity_ *= 2;
        first_ = 0;
    }
    ring_[(first_ + count_++) % capacity_] = std::move(task);
    changed_.notifyOne();
}

bool SerialQueue::next(InlineTask& task) {
    MutexLock lock(mutex_);
    while (count_ == 0) {
        if (ending_)
            return false;
        changed_.wait(mutex_);
    }
    task = std::move(ring_[first_]);
    first_ = (first_ + 1) % capacity_;
    --count_;
    return true;
}

void SerialQueue::run() {
    nameThisThread(name_);
    InlineTask task;
    while (next(task)) {
        try {
            task();
        } catch (...) {
            MutexLock lock(mutex_);
            if (!firstError_)
                firstError_ = std::current_exception();
        }
        task = InlineTask(); // what the task holds goes now, not when the next one comes
    }
}

void SerialQueue::drain() {
    sync([] {});
    std::exception_ptr error;
    {
        MutexLock lock(mutex_);
        error = std::exchange(firstError_, nullptr);
    }
    if (error)
        std::rethrow_exception(error);
}

void SerialQueue::signal(Rendezvous& done, std::exception_ptr error) {
    MutexLock lock(done.mutex);
    done.error = std::move(error);
    done.finished = true;
    done.changed.notifyAll();
}

void SerialQueue::await(Rendezvous& done) {
    std::exception_ptr error;
    {
        MutexLock lock(done.mutex);
        while (!done.finished)
            done.changed.wait(done.mutex);
        error = std::move(done.error);
    }
    if (error)
        std::rethrow_exception(error);
}

void SerialQueue::refuseOwnThread() const {
    if (std::this_thread::get_id() == thread_.get_id())
        throw std::logic_error(name_ + ": a queue cannot wait for itself");
}

} // namespace velmora
