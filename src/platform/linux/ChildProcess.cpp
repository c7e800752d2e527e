#include "platform/ChildProcess.h"

#include "platform/linux/ChildOutput.h"
#include "platform/linux/Descriptor.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>

namespace velmora {

namespace {

using Clock = std::chrono::steady_clock;

std::string toolName(const std::string& program) { return program.substr(program.find_last_of('/') + 1); }

// The attributes and file actions of posix_spawn, freed together.
class Spawn {
public:
    Spawn() {
        ::posix_spawnattr_init(&attributes_);
        ::posix_spawn_file_actions_init(&actions_);
        // A fresh signal state: our threads block signals that the child must hear, and we ignore SIGPIPE.
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
        ::posix_spawnattr_setpgroup(&attributes_, 0);
        ::posix_spawnattr_setflags(&attributes_,
                                   POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~Spawn() {
        ::posix_spawnattr_destroy(&attributes_);
        ::posix_spawn_file_actions_destroy(&actions_);
    }
    Spawn(const Spawn&) = delete;
    Spawn& operator=(const Spawn&) = delete;

    void nothingOn(int number, int flags) {
        ::posix_spawn_file_actions_addopen(&actions_, number, "/dev/null", flags, 0);
    }
    void put(int ours, int number) { ::posix_spawn_file_actions_adddup2(&actions_, ours, number); }
    void close(int number) { ::posix_spawn_file_actions_addclose(&actions_, number); }
    void closeFrom(int number) { ::posix_spawn_file_actions_addclosefrom_np(&actions_, number); }
    void enter(const std::string& folder) { ::posix_spawn_file_actions_addchdir_np(&actions_, folder.c_str()); }

    // 0 or an errno; a program that cannot be executed is reported here too.
    int start(pid_t& pid, const std::vector<std::string>& words, const std::vector<std::string>& environment) {
        std::vector<char*> argv;
        for (const std::string& word : words)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (const std::string& line : environment)
            envp.push_back(const_cast<char*>(line.c_str()));
        envp.push_back(nullptr);
        return ::posix_spawn(&pid, argv[0], &actions_, &attributes_, argv.data(), envp.data());
    }

private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t actions_;
};

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
    std::vector<std::string> all;
    const auto nameOf = [](std::string_view line) { return line.substr(0, line.find('=')); };
    for (char** line = ::environ; line != nullptr && *line != nullptr; ++line)
        if (std::ranges::none_of(changes, [&](const std::string& change) { return nameOf(change) == nameOf(*line); }))
            all.emplace_back(*line);
    all.insert(all.end(), changes.begin(), changes.end());
    return all;
}

// What the child gets is moved out of the way of its target numbers first: two targets may be each other's source.
Descriptor outOfTheWay(int fd) {
    constexpr int farUp = 64;
    return Descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, farUp));
}

} // namespace

struct ChildProcess::State {
    State(Options given, Descriptor outputPipe, Descriptor errorPipe, pid_t child)
        : options(std::move(given)), pid(child), ended(static_cast<int>(::syscall(SYS_pidfd_open, child, 0))),
          reader(options, std::move(outputPipe), std::move(errorPipe)) {}

    Options options;
    pid_t pid;
    Descriptor ended; // readable once the child has ended
    ChildOutput reader;
    bool running = true;
    int status = -1;

    // Looks without reaping: as long as the leader is a zombie its number, and with it the group's, is nobody else's.
    bool leaderHasEnded(int milliseconds) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
        while (true) {
            siginfo_t info{};
            retryInterrupted(
                [&] { return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT); });
            if (info.si_pid != 0)
                return true;
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0)
                return false;
            // Without a pidfd (before Linux 5.3) the poll waits on nothing, and is a short sleep.
            pollfd wait{ended.get(), POLLIN, 0};
            ::poll(&wait, 1, static_cast<int>(ended ? left : std::min<long>(left, 5)));
        }
    }

    // A grandchild may hold the pipes open long after the child has ended: it gets a moment to finish its sentence.
    void collect() {
        constexpr double grace = 1.0;
        const bool complete = reader.waitForEnd(grace);
        ::kill(-pid, SIGKILL);
        if (!complete)
            reader.abandon();
        reader.join();
        siginfo_t info{};
        retryInterrupted([&] { return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED); });
        status = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
        running = false;
    }
};

ChildProcess::ChildProcess(Options options) {
    const auto refuse = [&](int code) -> ToolError {
        return {toolName(options.program), -1, std::generic_category().message(code)};
    };
    int output[2];
    int error[2] = {-1, -1};
    if (::pipe2(output, O_CLOEXEC) != 0)
        throw refuse(errno);
    Descriptor outputRead(output[0]);
    const Descriptor outputWrite(output[1]);
    if (!options.errorToOutput && ::pipe2(error, O_CLOEXEC) != 0)
        throw refuse(errno);
    Descriptor errorRead(error[0]);
    const Descriptor errorWrite(error[1]);

    Spawn spawn;
    std::vector<Descriptor> moved;
    const auto give = [&](int ours, int number) {
        moved.push_back(outOfTheWay(ours));
        if (!moved.back())
            throw refuse(errno);
        spawn.put(moved.back().get(), number);
    };
    spawn.nothingOn(0, O_RDONLY);
    give(outputWrite.get(), 1);
    give(options.errorToOutput ? outputWrite.get() : errorWrite.get(), 2);
    int next = 3;
    std::ranges::sort(options.descriptors);
    for (const auto& [number, ours] : options.descriptors) {
        for (; next < number; ++next)
            spawn.nothingOn(next, O_RDWR);
        give(ours, number);
        next = number + 1;
    }
    spawn.closeFrom(next);
    if (!options.workingFolder.empty())
        spawn.enter(options.workingFolder);

    std::vector<std::string> words{options.program};
    words.insert(words.end(), options.arguments.begin(), options.arguments.end());
    pid_t pid = -1;
    if (const int code = spawn.start(pid, words, environmentWith(options.environment)); code != 0)
        throw refuse(code);
    try {
        state_ = std::make_unique<State>(std::move(options), std::move(outputRead), std::move(errorRead), pid);
    } catch (...) {
        ::kill(-pid, SIGKILL);
        retryInterrupted([&] { return ::waitpid(pid, nullptr, 0); });
        throw;
    }
}

ChildProcess::~ChildProcess() { stop(); }

int ChildProcess::pid() const noexcept { return state_->pid; }

bool ChildProcess::waitFor(double seconds) {
    if (!state_->running)
        return true;
    if (!state_->leaderHasEnded(static_cast<int>(std::clamp(seconds, 0.0, 1e6) * 1000)))
        return false;
    state_->collect();
    return true;
}

void ChildProcess::stop() {
    if (!state_->running)
        return;
    ::kill(-state_->pid, SIGTERM);
    constexpr int patience = 2000;
    if (!state_->leaderHasEnded(patience)) {
        ::kill(-state_->pid, SIGKILL);
        while (!state_->leaderHasEnded(patience)) {
            // Only a process stuck inside the kernel gets here; it ends when its disk answers.
        }
    }
    state_->collect();
}

int ChildProcess::status() const { return state_->status; }
const std::string& ChildProcess::output() const { return state_->reader.output(); }
const std::string& ChildProcess::errorTail() const { return state_->reader.errorTail(); }
bool ChildProcess::outputTooLong() const { return state_->reader.tooLong(); }

std::string ChildProcess::run(Options options, std::optional<double> timeout, const IsCancelled& isCancelled) {
    constexpr double glance = 0.02; // seconds: how soon a cancel is seen
    const std::string name = toolName(options.program);
    const auto start = Clock::now();
    ChildProcess child(std::move(options));
    const auto giveUp = [&](const std::string& why) {
        child.stop();
        throw ToolError(name, child.status(), why);
    };
    while (!child.waitFor(glance)) {
        if (isCancelled && isCancelled())
            giveUp("cancelled");
        if (timeout && std::chrono::duration<double>(Clock::now() - start).count() > *timeout)
            giveUp(fmt::format("no response within {:.0f} s — stopped", *timeout));
        if (child.outputTooLong())
            giveUp("more output than expected — stopped");
    }
    if (child.outputTooLong())
        giveUp("more output than expected — stopped");
    if (child.status() != 0)
        throw ToolError(name, child.status(), child.errorTail());
    return child.output();
}

} // namespace velmora
