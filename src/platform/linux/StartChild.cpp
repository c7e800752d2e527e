#include "platform/linux/StartChild.h"

#include "platform/linux/Descriptor.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// glibc's clone by its inner name. The thread sanitizer takes `clone` for a fork: from then on it would hear of no lock
// that the calling thread takes, since this child is in the thread's own memory.
extern "C" int __clone(int (*)(void*), void*, int, void*, ...); // NOLINT(bugprone-reserved-identifier,cert-dcl*)

namespace velmora {

namespace {

// What the child reads between clone and exec. It runs in our memory, on a stack of its own, while the thread that
// started it stands still: it allocates nothing, and it calls the kernel directly so that a sanitizer's notes about our
// descriptors and signals stay ours.
struct Errand {
    char* const* argv;
    char* const* envp;
    const char* folder; // null: ours
    const std::pair<int, int>* descriptors;
    std::size_t count;
    pid_t parent;
    int failure = 0; // read by the parent after the exec or the end
};

int runErrand(void* given) {
    Errand& errand = *static_cast<Errand*>(given);
    const auto fail = [&](int code) {
        errand.failure = code;
        ::syscall(SYS_exit_group, 127);
        return 127;
    };
    ::syscall(SYS_setpgid, 0, 0);
    ::syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (::syscall(SYS_getppid) != errand.parent)
        return fail(ECHILD);                                // it was killed before the line above
    constexpr std::array<unsigned long, 8> defaultAction{}; // longer than the kernel's sigaction on any machine
    constexpr int lastSignal = 64;
    for (int number = 1; number <= lastSignal; ++number)
        ::syscall(SYS_rt_sigaction, number, defaultAction.data(), nullptr, sizeof(std::uint64_t));
    for (std::size_t i = 0; i < errand.count; ++i)
        if (::syscall(SYS_dup3, errand.descriptors[i].first, errand.descriptors[i].second, 0) < 0)
            return fail(errno);
    if (::syscall(SYS_close_range, static_cast<unsigned>(errand.count), ~0U, 0) < 0)
        return fail(errno);
    if (errand.folder != nullptr && ::syscall(SYS_chdir, errand.folder) < 0)
        return fail(errno);
    constexpr std::uint64_t none = 0;
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, sizeof none);
    ::syscall(SYS_execve, errand.argv[0], errand.argv, errand.envp);
    return fail(errno);
}

std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> all;
    for (const std::string& text : texts)
        all.push_back(const_cast<char*>(text.c_str()));
    all.push_back(nullptr);
    return all;
}

} // namespace

int startChild(const ChildStart& start, pid_t& pid) {
    const auto argv = pointers(start.words);
    const auto envp = pointers(start.environment);
    // What the child gets is moved out of the way of its target numbers first: two targets may be each other's source.
    std::vector<Descriptor> moved;
    std::vector<std::pair<int, int>> descriptors;
    const int farUp = std::max(64, static_cast<int>(start.descriptors.size()));
    for (const auto& [ours, number] : start.descriptors) {
        moved.emplace_back(::fcntl(ours, F_DUPFD_CLOEXEC, farUp));
        if (!moved.back())
            return errno;
        descriptors.emplace_back(moved.back().get(), number);
    }
    Errand errand{
        argv.data(),        envp.data(),        start.workingFolder.empty() ? nullptr : start.workingFolder.c_str(),
        descriptors.data(), descriptors.size(), ::getpid()};

    constexpr std::size_t stackBytes = std::size_t{64} << 10;
    const auto stack = std::make_unique<std::array<char, stackBytes>>();
    // No handler of ours may run in the child: it is in our memory.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    pid = ::__clone(runErrand, stack->data() + stackBytes, CLONE_VM | CLONE_VFORK | SIGCHLD, &errand);
    const int code = pid < 0 ? errno : errand.failure;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (pid > 0 && code != 0)
        retryInterrupted([&] { return ::waitpid(pid, nullptr, 0); });
    return code;
}

} // namespace velmora
