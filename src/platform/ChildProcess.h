#pragma once

#include "base/Errors.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora {

// An outside program. It is started by its full path with plain arguments, without a shell. Its standard input is
// empty, and it gets no descriptor of ours but the ones named. It has a process group of its own, so that a stop ends
// whatever it has started. Its output is read on a thread of its own for as long as it lives. A child never outlives
// its object, nor this process: it is killed when we are.
class ChildProcess {
public:
    struct Options {
        std::string program = {}; // full path
        std::vector<std::string> arguments = {};
        std::string workingFolder = {};            // empty: ours
        std::vector<std::string> environment = {}; // "NAME=value" on top of ours; "NAME" takes one of ours away
        int input = -1;                            // our descriptor that it reads as standard input
        int outputTo = -1;                         // our descriptor for its standard output; none of it is kept then
        bool errorToOutput = false;                // both streams in one, as they come
        // Standard output is kept whole up to this; a program that says more is stopped.
        std::size_t outputLimit = std::size_t{256} << 20;
        bool keepOutput = true;
        // Complete lines without their end, and the last one even if it is unfinished; on the reader's thread.
        std::function<void(std::string_view line)> onOutputLine = {};
        std::function<void(std::string_view line)> onErrorLine = {};
        // (number in the child, our descriptor); numbers from 3 on.
        std::vector<std::pair<int, int>> descriptors = {};
    };

    explicit ChildProcess(Options options); // ToolError with status -1 and the system's text when it cannot start
    ~ChildProcess();                        // stop()
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    int pid() const noexcept;
    // Waits for the end, at most `seconds`; false when it still runs.
    bool waitFor(double seconds);
    void askToEnd() noexcept; // SIGTERM to the group; does not wait
    void kill() noexcept;     // SIGKILL to the group; does not wait
    // Asks the group to end, waits up to `patience` seconds, then kills it.
    void stop(double patience = 2.0);

    // After the end. The exit status, or 128 and the number of the signal that ended it.
    int status() const;
    const std::string& output() const;
    // The last of its standard error: at most 65,536 bytes, and of a longer stream at least the last 16,000. Bytes that
    // are not UTF-8 are replaced.
    const std::string& errorTail() const;
    bool outputTooLong() const;

    // Runs to the end and returns the standard output. ToolError when it cannot start (status -1), ends with another
    // status than 0 (its error tail as message), is cancelled ("cancelled") or takes longer than `timeout` seconds
    // ("no response within {seconds} s — stopped"); the group is gone then.
    static std::string run(Options options, std::optional<double> timeout = {}, const IsCancelled& isCancelled = {});

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace velmora
