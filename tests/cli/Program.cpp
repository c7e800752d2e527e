#include "cli/Program.h"

#include <pty.h>

namespace velmora::test {

namespace {

constexpr auto step = std::chrono::milliseconds(10);
constexpr int steps = 6000;

[[noreturn]] void become(const std::vector<std::string>& arguments, const Program::How& how, int out, int err) {
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    for (const int number : how.closed)
        ::close(number);
    for (const int number : how.ignoredSignals)
        std::signal(number, SIG_IGN);
    for (const auto& variable : how.environment)
        ::putenv(::strdup(variable.c_str()));
    std::vector<char*> argv;
    for (const auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(99);
}

} // namespace

Program::Program(const std::vector<std::string>& arguments, const How& how) {
    std::vector<std::string> all = {std::filesystem::read_symlink("/proc/self/exe").parent_path() / "velmora"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    How full = how;
    full.environment.insert(full.environment.begin(), // what a test sets wins
                            {"VELMORA_SETTINGS_DIR=" + folder_ / "settings", "TERM=xterm"});
    const int out =
        how.out >= 0 ? ::dup(how.out) : ::open((folder_ / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    int err = -1;
    if (how.terminalColumns > 0) {
        winsize size{};
        size.ws_col = static_cast<unsigned short>(how.terminalColumns);
        size.ws_row = 24;
        ::openpty(&terminal_, &err, nullptr, nullptr, &size);
        ::fcntl(terminal_, F_SETFL, O_NONBLOCK);
    } else {
        err = ::open((folder_ / "err").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    }
    pid_ = ::fork();
    if (pid_ == 0)
        become(all, full, out, err);
    ::close(out);
    ::close(err);
}

Program::~Program() {
    if (!ended()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (terminal_ >= 0)
        ::close(terminal_);
}

bool Program::ended() {
    drainTerminal();
    if (status_ < 0) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) != pid_)
            return false;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return true;
}

std::vector<std::string> Program::copying(const std::string& source, const std::vector<std::string>& roots,
                                          const std::string& date, const std::vector<std::string>& more) {
    std::vector<std::string> all = {"copy", source, "--date", date, "--block-mib", "1"};
    for (const auto& root : roots)
        all.insert(all.end(), {"--dest", root});
    all.insert(all.end(), {"--allow-same-device", "--allow-source-volume"});
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

void Program::signal(int number) const { ::kill(pid_, number); }

int Program::wait() {
    for (int i = 0; i < steps && !ended(); ++i)
        std::this_thread::sleep_for(step);
    if (!ended()) {
        ADD_FAILURE() << "still running after a minute";
        ::kill(pid_, SIGKILL);
    }
    return status_;
}

void Program::drainTerminal() const {
    char bytes[4096];
    for (ssize_t n = 0; terminal_ >= 0 && (n = ::read(terminal_, bytes, sizeof bytes)) > 0;)
        screen_.append(bytes, static_cast<std::size_t>(n));
}

std::string Program::out() const { return FileTree::read(folder_ / "out"); }

std::string Program::err() const {
    drainTerminal();
    return terminal_ >= 0 ? screen_ : FileTree::read(folder_ / "err");
}

std::vector<nlohmann::json> Program::events() const {
    const std::string text = out();
    std::vector<nlohmann::json> events;
    for (std::size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        auto event = nlohmann::json::parse(text.substr(begin, end - begin), nullptr, false);
        EXPECT_FALSE(event.is_discarded()) << text.substr(begin, end - begin);
        events.push_back(std::move(event));
    }
    return events;
}

std::optional<nlohmann::json> Program::waitFor(const std::function<bool(const nlohmann::json&)>& condition) {
    for (int i = 0; i < steps; ++i) {
        const bool over = ended();
        for (auto& event : events())
            if (condition(event))
                return event;
        if (over)
            return std::nullopt;
        std::this_thread::sleep_for(step);
    }
    return std::nullopt;
}

} // namespace velmora::test
