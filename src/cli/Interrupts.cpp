#include "cli/Interrupts.h"

#include "base/Errors.h"

#include <cerrno>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace velmora {

namespace {

bool inheritedIgnored(int signal) {
    struct sigaction action{};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

Interrupts::Interrupts() {
    std::signal(SIGPIPE, SIG_IGN);
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
        sigaddset(&signals_, signal);
    if (!inheritedIgnored(SIGHUP)) // nohup
        sigaddset(&signals_, SIGHUP);
    // A job that a script put into the background is not meant by the Ctrl-C of the terminal, but by a kill with its
    // process id.
    ignoreTerminalInterrupt_ = inheritedIgnored(SIGINT);

    if (const int error = ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr); error != 0)
        throw IOError("sigmask", "signals", error);
    signalFd_ = ::signalfd(-1, &signals_, SFD_CLOEXEC);
    if (signalFd_ < 0)
        throw IOError("signalfd", "signals", errno);
    stopFd_ = ::eventfd(0, EFD_CLOEXEC);
    if (stopFd_ < 0) {
        const int error = errno;
        ::close(signalFd_);
        throw IOError("eventfd", "signals", error);
    }
    thread_ = std::thread([this] { watch(); });
    ::pthread_setname_np(thread_.native_handle(), "velmora.signals");
}

Interrupts::~Interrupts() {
    const std::uint64_t one = 1;
    while (::write(stopFd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    thread_.join();
    ::close(signalFd_);
    ::close(stopFd_);
}

void Interrupts::watch() {
    for (;;) {
        pollfd fds[2] = {{signalFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0)
            continue; // EINTR is the only way
        if (fds[1].revents != 0)
            return;
        signalfd_siginfo info{};
        if (::read(signalFd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info))
            continue;
        if (info.ssi_signo == SIGINT && ignoreTerminalInterrupt_ && info.ssi_code == SI_KERNEL)
            continue;
        deliver(static_cast<int>(info.ssi_signo));
    }
}

void Interrupts::deliver(int signal) {
    // Called under the lock, so that a route that has ended is never called again. Targets only set a flag and wake.
    MutexLock lock(mutex_);
    const auto& call = signal == SIGUSR1 ? target_.pause : signal == SIGUSR2 ? target_.resume : target_.cancel;
    if (call) {
        call();
    } else if (signal != SIGUSR1 && signal != SIGUSR2) {
        std::signal(signal, SIG_DFL);
        ::kill(::getpid(), signal);
        ::pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
    }
}

Interrupts::Route::Route(Interrupts& owner, Target target) : owner_(owner) {
    MutexLock lock(owner_.mutex_);
    owner_.target_ = std::move(target);
}

Interrupts::Route::~Route() {
    MutexLock lock(owner_.mutex_);
    owner_.target_ = {};
}

} // namespace velmora
