#pragma once

#include "base/Mutex.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace velmora {

// The two output streams of a command. Results go to standard output, log lines and progress to standard error. A
// stream that takes no more is given up: a copy does not stop because `| head` has seen enough, or because the disk of
// the log is full. What did not reach standard output is no success all the same: `outputError` tells. Any thread.
class Console {
public:
    // Descriptors of the two streams; `colour` only matters on a terminal.
    Console(int out, int err);

    // A line of the result.
    void print(std::string_view line);
    // One JSON object on a line of its own, on standard output.
    void event(const nlohmann::json& object);
    // A line on standard error. A progress line is wiped first and comes back with the next `progress`.
    void log(std::string_view line);
    // What kept standard output from being written, 0 for nothing. To be asked when all is printed.
    int outputError();

    // Whether a progress line would be seen at all: standard error is a terminal that can redraw.
    bool showsProgress() const noexcept { return terminal_; }
    // Width of that terminal in cells, asked anew each time: windows are resized.
    std::size_t columns() const;
    // Redraws the progress line, cut to the width of the terminal; does nothing elsewhere.
    void progress(std::string_view line);
    void clearProgress();
    // Calls for attention, where there is a terminal.
    void bell();

    // Text in bold or colour where standard output is a terminal that wants it (NO_COLOR is respected).
    enum class Tone { plain, bold, good, warning, bad };
    std::string toned(std::string_view text, Tone tone) const;

private:
    // 0, or what went wrong; the stream is given up then.
    static int write(int& fd, std::string_view bytes);
    void wipe() REQUIRES(mutex_);

    Mutex mutex_;
    int out_ GUARDED_BY(mutex_);
    int err_ GUARDED_BY(mutex_);
    int outputError_ GUARDED_BY(mutex_) = 0;
    int terminalFd_;
    bool terminal_;
    bool colour_;
    bool drawn_ GUARDED_BY(mutex_) = false;
};

} // namespace velmora
