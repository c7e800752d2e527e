#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"

#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace velmora {

// A callable without arguments in fixed storage: never allocates. Move-only. What does not fit does not compile.
class InlineTask {
public:
    static constexpr std::size_t capacity = 96;

    InlineTask() = default;
    template <class F>
        requires(!std::is_same_v<std::remove_cvref_t<F>, InlineTask>)
    explicit InlineTask(F&& f) {
        using Fn = std::remove_cvref_t<F>;
        static_assert(sizeof(Fn) <= capacity, "capture less: a task lives in fixed storage");
        static_assert(alignof(Fn) <= alignof(std::max_align_t));
        static_assert(std::is_nothrow_move_constructible_v<Fn>);
        ::new (static_cast<void*>(storage_)) Fn(std::forward<F>(f));
        operations_ = &operationsOf<Fn>;
    }
    InlineTask(InlineTask&& other) noexcept { take(other); }
    InlineTask& operator=(InlineTask&& other) noexcept {
        if (this != &other) {
            reset();
            take(other);
        }
        return *this;
    }
    ~InlineTask() { reset(); }

    explicit operator bool() const noexcept { return operations_ != nullptr; }
    void operator()() { operations_->call(storage_); }

private:
    struct Operations {
        void (*call)(void*);
        void (*move)(void* from, void* to) noexcept; // leaves `from` destroyed
        void (*destroy)(void*) noexcept;
    };
    template <class Fn>
    static constexpr Operations operationsOf = {
        [](void* f) { (*static_cast<Fn*>(f))(); },
        [](void* from, void* to) noexcept {
            ::new (to) Fn(std::move(*static_cast<Fn*>(from)));
            static_cast<Fn*>(from)->~Fn();
        },
        [](void* f) noexcept { static_cast<Fn*>(f)->~Fn(); },
    };
    void take(InlineTask& other) noexcept {
        if (other.operations_) {
            other.operations_->move(other.storage_, storage_);
            operations_ = std::exchange(other.operations_, nullptr);
        }
    }
    void reset() noexcept {
        if (operations_)
            std::exchange(operations_, nullptr)->destroy(storage_);
    }

    const Operations* operations_ = nullptr;
    alignas(std::max_align_t) std::byte storage_[capacity];
};

// A named thread that does one task after another, in the order in which they came. State that only its tasks touch
// needs no lock. Waiting tasks stand in a ring that grows when it must and never shrinks, so a queue that has found
// its depth allocates no more.
//
// A task that throws does not end the thread: the first exception is kept and thrown by the next `drain`. One that
// nobody has collected goes to the log when the queue is destroyed.
class SerialQueue {
public:
    // `name` is shown by debuggers (the kernel keeps 15 bytes of it).
    explicit SerialQueue(std::string name, Log log = {});
    ~SerialQueue(); // does what is queued, then ends the thread
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& name() const noexcept { return name_; }

    // Any thread, the queue's own included. Returns at once.
    template <class F>
    void async(F&& task) {
        push(InlineTask(std::forward<F>(task)));
    }

    // Runs the task behind everything queued so far, waits for it and returns its result or throws its exception.
    // Not from the queue's own thread (std::logic_error: it would wait for itself).
    template <class F>
    std::invoke_result_t<F> sync(F&& task) {
        using R = std::invoke_result_t<F>;
        Rendezvous done;
        if constexpr (std::is_void_v<R>) {
            runAndWait(done, [&] { task(); });
        } else {
            std::unique_ptr<R> result;
            runAndWait(done, [&] { result = std::make_unique<R>(task()); });
            return std::move(*result);
        }
    }

    // Waits until everything queued so far is done; throws the first exception that a task of `async` has left.
    void drain();

private:
    // Where a caller of sync waits. The task may signal it only while holding the lock: the caller's frame goes away
    // as soon as it has seen `finished`.
    struct Rendezvous {
        Mutex mutex;
        Condition changed;
        bool finished GUARDED_BY(mutex) = false;
        std::exception_ptr error GUARDED_BY(mutex);
    };
    template <class F>
    void runAndWait(Rendezvous& done, F&& task) {
        refuseOwnThread();
        async([&done, &task] {
            std::exception_ptr error;
            try {
                task();
            } catch (...) {
                error = std::current_exception();
            }
            signal(done, std::move(error));
        });
        await(done);
    }
    static void signal(Rendezvous& done, std::exception_ptr error);
    static void await(Rendezvous& done); // throws the task's exception
    void refuseOwnThread() const;
    void push(InlineTask task);
    void run();
    bool next(InlineTask& task);

    const std::string name_;
    const Log log_;
    Mutex mutex_;
    Condition changed_;
    std::unique_ptr<InlineTask[]> ring_ GUARDED_BY(mutex_);
    std::size_t capacity_ GUARDED_BY(mutex_) = 0;
    std::size_t first_ GUARDED_BY(mutex_) = 0;
    std::size_t count_ GUARDED_BY(mutex_) = 0;
    bool ending_ GUARDED_BY(mutex_) = false;
    std::exception_ptr firstError_ GUARDED_BY(mutex_);
    std::thread thread_;
};

} // namespace velmora
