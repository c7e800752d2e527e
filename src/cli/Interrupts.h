#pragma once

#include "base/Mutex.h"

#include <csignal>
#include <functional>
#include <thread>

namespace velmora {

// Turns signals into calls on an ordinary thread. SIGINT, SIGTERM and SIGHUP cancel, SIGUSR1 pauses, SIGUSR2 resumes.
// The constructor blocks these signals, so it must run before any other thread is started: all threads then inherit
// the block, and no code ever runs inside a signal handler. SIGPIPE is ignored for the whole process.
//
// While nothing is routed, a cancelling signal ends the process as if this class did not exist, and SIGUSR1 and
// SIGUSR2 do nothing.
class Interrupts {
public:
    struct Target {
        std::function<void()> cancel; // may be called again for every further signal: a second Ctrl-C changes nothing
        std::function<void()> pause;  // optional
        std::function<void()> resume; // optional
    };

    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    // Sends the signals to a target as long as the object lives.
    class [[nodiscard]] Route {
    public:
        Route(Interrupts& owner, Target target);
        ~Route();
        Route(const Route&) = delete;
        Route& operator=(const Route&) = delete;

    private:
        Interrupts& owner_;
    };

private:
    void watch();
    void deliver(int signal);

    sigset_t signals_;
    bool ignoreTerminalInterrupt_ = false;
    int signalFd_ = -1;
    int stopFd_ = -1;
    Mutex mutex_;
    Target target_ GUARDED_BY(mutex_);
    std::thread thread_;
};

} // namespace velmora
