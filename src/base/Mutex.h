#pragma once

#include <condition_variable>
#include <mutex>

// Lock annotations that clang checks at compile time (Thread Safety Analysis); other compilers see nothing.
#if defined(__clang__)
#define VELMORA_TSA(x) __attribute__((x))
#else
#define VELMORA_TSA(x)
#endif
#define CAPABILITY(x) VELMORA_TSA(capability(x))
#define SCOPED_CAPABILITY VELMORA_TSA(scoped_lockable)
#define GUARDED_BY(x) VELMORA_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) VELMORA_TSA(pt_guarded_by(x))
#define REQUIRES(...) VELMORA_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VELMORA_TSA(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VELMORA_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VELMORA_TSA(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS VELMORA_TSA(no_thread_safety_analysis)

namespace velmora {

// A std::mutex that the compiler can reason about. Held for a few statements, never across I/O.
class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

private:
    friend class Condition;
    std::mutex mutex_;
};

// Holds a Mutex for a scope.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

// A condition variable that waits on a Mutex which the caller already holds.
class Condition {
public:
    void wait(Mutex& mutex) REQUIRES(mutex) {
        Held held(mutex);
        condition_.wait(held.lock);
    }
    template <class Duration>
    std::cv_status waitFor(Mutex& mutex, Duration time) REQUIRES(mutex) {
        Held held(mutex);
        return condition_.wait_for(held.lock, time);
    }
    void notifyOne() { condition_.notify_one(); }
    void notifyAll() { condition_.notify_all(); }

private:
    // Gives the caller's lock to the condition variable and gets it back locked.
    struct Held {
        explicit Held(Mutex& mutex) : lock(mutex.mutex_, std::adopt_lock) {}
        ~Held() { lock.release(); }
        std::unique_lock<std::mutex> lock;
    };
    std::condition_variable condition_;
};

} // namespace velmora
