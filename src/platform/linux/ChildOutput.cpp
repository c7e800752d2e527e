#include "platform/linux/ChildOutput.h"

#include "base/Text.h"

#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/eventfd.h>

namespace velmora {

namespace {

constexpr std::size_t tailLimit = 65536; // beyond this the error stream is cut …
constexpr std::size_t tailKept = 16000;  // … to its last bytes
constexpr std::size_t longestLine = std::size_t{1} << 20;

} // namespace

ChildOutput::ChildOutput(const ChildProcess::Options& options, Descriptor output, Descriptor error,
                         std::function<int()> start)
    : options_(options), outputPipe_(std::move(output)), errorPipe_(std::move(error)), wake_(::eventfd(0, EFD_CLOEXEC)),
      outputLines_{options.onOutputLine}, errorLines_{options.onErrorLine},
      thread_([this, begin = std::move(start)] { live(begin); }) {}

ChildOutput::~ChildOutput() {
    abandon();
    join();
}

void ChildOutput::abandon() noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one); // cannot fail below 2^64 - 1
}

void ChildOutput::join() {
    {
        MutexLock lock(mutex_);
        released_ = true;
        condition_.notifyAll();
    }
    if (thread_.joinable())
        thread_.join();
}

int ChildOutput::started() {
    MutexLock lock(mutex_);
    while (!started_)
        condition_.wait(mutex_);
    return *started_;
}

bool ChildOutput::waitForEnd(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    MutexLock lock(mutex_);
    while (!ended_) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left.count() <= 0)
            return false;
        condition_.waitFor(mutex_, left);
    }
    return true;
}

void ChildOutput::live(const std::function<int()>& start) {
    int code = ENOMEM;
    try {
        code = start();
    } catch (...) {
        // Memory for the start; it throws nothing once there is a child.
    }
    {
        MutexLock lock(mutex_);
        started_ = code;
        condition_.notifyAll();
    }
    if (code == 0)
        readAll();
    MutexLock lock(mutex_);
    ended_ = true;
    condition_.notifyAll();
    while (!released_)
        condition_.wait(mutex_);
}

void ChildOutput::readAll() {
    while (outputPipe_ || errorPipe_) {
        pollfd fds[] = {{outputPipe_.get(), POLLIN, 0}, {errorPipe_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        if (::poll(fds, 3, -1) < 0)
            continue;
        if (fds[2].revents != 0)
            break;
        if (fds[0].revents != 0 && !readSome(outputPipe_, false))
            outputPipe_.reset();
        if (fds[1].revents != 0 && !readSome(errorPipe_, true))
            errorPipe_.reset();
    }
    outputLines_.end();
    errorLines_.end();
    errorTail_ = withValidUtf8(errorTail_);
    if (errorTail_.size() > tailLimit) // replacement characters are longer than what they replace
        errorTail_ = withValidUtf8(errorTail_.substr(errorTail_.size() - tailKept));
}

bool ChildOutput::readSome(Descriptor& from, bool isError) {
    char buffer[65536];
    const ssize_t n = retryInterrupted([&] { return ::read(from.get(), buffer, sizeof buffer); });
    if (n <= 0)
        return false;
    take({buffer, static_cast<std::size_t>(n)}, isError);
    return true;
}

void ChildOutput::take(std::string_view bytes, bool isError) {
    (isError ? errorLines_ : outputLines_).add(bytes);
    if (isError) {
        errorTail_ += bytes;
        if (errorTail_.size() > tailLimit)
            errorTail_.erase(0, errorTail_.size() - tailKept);
        return;
    }
    if (!options_.keepOutput || tooLong_)
        return;
    if (output_.size() + bytes.size() > options_.outputLimit)
        tooLong_ = true; // whoever waits for the child stops it; until then its pipe is kept empty
    else
        output_ += bytes;
}

void ChildOutput::Lines::add(std::string_view bytes) {
    if (!call)
        return;
    while (!bytes.empty()) {
        const std::size_t end = bytes.find('\n');
        partial += bytes.substr(0, end);
        if (end == std::string_view::npos && partial.size() < longestLine)
            return;
        deliver();
        if (end == std::string_view::npos)
            return;
        bytes.remove_prefix(end + 1);
    }
}

void ChildOutput::Lines::end() {
    if (call && !partial.empty())
        deliver();
}

void ChildOutput::Lines::deliver() {
    try {
        call(partial);
    } catch (...) {
        // A listener's failure is its own affair; the stream must be read on, or the child stands still.
    }
    partial.clear();
}

} // namespace velmora
