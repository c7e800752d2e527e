#include "platform/ChildProcess.h"

#include "platform/linux/ChildOutput.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/StartChild.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>

namespace velmora {

namespace {

using Clock = std::chrono::steady_clock;

std::string toolName(const std::string& program) { return program.substr(program.find_last_of('/') + 1); }

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
    std::vector<std::string> all;
    const auto nameOf = [](std::string_view line) { return line.substr(0, line.find('=')); };
    for (char** line = ::environ; line != nullptr && *line != nullptr; ++line)
        if (std::ranges::none_of(changes, [&](const std::string& change) { return nameOf(change) == nameOf(*line); }))
            all.emplace_back(*line);
    std::ranges::copy_if(changes, std::back_inserter(all),
                         [](const std::string& c) { return c.find('=') != std::string::npos; });
    return all;
}

} // namespace

struct ChildProcess::State {
    State(Options given, const ChildStart& start, Descriptor outputPipe, Descriptor errorPipe)
        : options(std::move(given)),
          reader(options, std::move(outputPipe), std::move(errorPipe), [&] { return startChild(start, pid); }) {
        // `start` is used by the reader's thread until this answers.
        if (const int code = reader.started(); code != 0)
            throw ToolError(toolName(options.program), -1, std::generic_category().message(code));
        ended = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    }

    Options options;
    pid_t pid = -1;
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
    struct Pipe {
        Descriptor read, write;
    };
    const auto pipe = [&] {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw ToolError(toolName(options.program), -1, std::generic_category().message(errno));
        return Pipe{Descriptor(ends[0]), Descriptor(ends[1])};
    };
    Pipe output = options.outputTo < 0 ? pipe() : Pipe{};
    Pipe error = options.errorToOutput ? Pipe{} : pipe();
    const Descriptor nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));

    ChildStart start;
    const int toOutput = output.write ? output.write.get() : options.outputTo;
    start.descriptors = {{options.input < 0 ? nothing.get() : options.input, 0},
                         {toOutput, 1},
                         {error.write ? error.write.get() : toOutput, 2}};
    std::ranges::sort(options.descriptors);
    for (const auto& [number, ours] : options.descriptors) {
        while (static_cast<int>(start.descriptors.size()) < number)
            start.descriptors.emplace_back(nothing.get(), static_cast<int>(start.descriptors.size()));
        start.descriptors.emplace_back(ours, number);
    }
    start.workingFolder = options.workingFolder;
    start.words = {options.program};
    start.words.insert(start.words.end(), options.arguments.begin(), options.arguments.end());
    start.environment = environmentWith(options.environment);
    state_ = std::make_unique<State>(std::move(options), start, std::move(output.read), std::move(error.read));
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

void ChildProcess::askToEnd() noexcept {
    if (state_->running)
        ::kill(-state_->pid, SIGTERM);
}

void ChildProcess::kill() noexcept {
    if (state_->running)
        ::kill(-state_->pid, SIGKILL);
}

void ChildProcess::stop(double patience) {
    if (!state_->running)
        return;
    askToEnd();
    const int milliseconds = static_cast<int>(patience * 1000);
    if (!state_->leaderHasEnded(milliseconds)) {
        kill();
        constexpr int glance = 2000;
        while (!state_->leaderHasEnded(glance)) {
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
