#include "cli/Console.h"

#include "cli/TerminalText.h"

#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace velmora {

namespace {

bool dumbTerminal() {
    const char* term = std::getenv("TERM");
    return term == nullptr || std::string_view(term) == "dumb" || *term == '\0';
}

bool colourWanted() {
    const char* refused = std::getenv("NO_COLOR");
    return (refused == nullptr || *refused == '\0') && !dumbTerminal();
}

} // namespace

Console::Console(int out, int err)
    : out_(out), err_(err), terminalFd_(err), terminal_(::isatty(err) == 1 && !dumbTerminal()),
      colour_(::isatty(out) == 1 && colourWanted()) {}

int Console::write(int& fd, std::string_view bytes) {
    while (!bytes.empty() && fd >= 0) {
        const auto written = ::write(fd, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) { // somebody made the shared terminal non-blocking
            pollfd wait{fd, POLLOUT, 0};
            ::poll(&wait, 1, 1000);
        } else if (const int error = errno; error != EINTR) {
            fd = -1;
            return error;
        }
    }
    return 0;
}

void Console::wipe() {
    if (drawn_)
        write(err_, "\r\x1b[K");
    drawn_ = false;
}

void Console::print(std::string_view line) {
    MutexLock lock(mutex_);
    wipe();
    if (const int error = write(out_, std::string(line).append("\n")); error != 0)
        outputError_ = error;
}

int Console::outputError() {
    MutexLock lock(mutex_);
    // Some file systems, those of a network above all, tell of a full disk only when a descriptor is closed.
    if (out_ >= 0)
        if (const int copy = ::dup(out_); copy >= 0 && ::close(copy) != 0 && errno != EINTR)
            outputError_ = errno;
    return outputError_;
}

void Console::event(const nlohmann::json& object) {
    // Names on a card need not be valid UTF-8; JSON must be.
    print(object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void Console::log(std::string_view line) {
    MutexLock lock(mutex_);
    wipe();
    write(err_, TerminalText::printable(line).append("\n"));
}

void Console::bell() {
    MutexLock lock(mutex_);
    if (terminal_)
        write(err_, "\a");
}

std::size_t Console::columns() const {
    winsize size{};
    if (::ioctl(terminalFd_, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
}

void Console::progress(std::string_view line) {
    if (!terminal_)
        return;
    // The last cell stays free: some terminals wrap as soon as it is filled.
    const std::string text = TerminalText::fit(line, columns() - 1);
    MutexLock lock(mutex_);
    write(err_, "\r" + text + "\x1b[K");
    drawn_ = true;
}

void Console::clearProgress() {
    MutexLock lock(mutex_);
    wipe();
}

std::string Console::toned(std::string_view text, Tone tone) const {
    const char* code = nullptr;
    switch (tone) {
    case Tone::plain:
        break;
    case Tone::bold:
        code = "1";
        break;
    case Tone::good:
        code = "1;32";
        break;
    case Tone::warning:
        code = "1;33";
        break;
    case Tone::bad:
        code = "1;31";
        break;
    }
    if (code == nullptr || !colour_)
        return std::string(text);
    return std::string("\x1b[").append(code).append("m").append(text).append("\x1b[0m");
}

} // namespace velmora
