// Preloaded into a program under test. It ends, stops or misleads the program at one of its own system calls, so that
// no kernel help and no root is needed to reach a chosen moment again.
//
// VELMORA_STRIKE holds rules, separated by ";": ACTION OPS PATTERN SKIP TIMES
//   ACTION   kill, torn (half of a write, then kill), stop, int, flip (one bit of a write), or a number: errno
//   OPS      names from below, joined by ","; "change" stands for all that alter a disk
//   PATTERN  a piece of the path
//   SKIP     calls that match and are passed over; then TIMES calls are struck (0: all)
// At the end the number of calls that matched the first rule goes to the file VELMORA_STRIKE_COUNT.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

struct Rule {
    std::string action;
    std::string ops;
    std::string pattern;
    long skip = 0;
    long times = 1;
    std::atomic<long> seen{0};
};

const char* environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

struct Rules {
    Rules() {
        std::istringstream text(environment("VELMORA_STRIKE"));
        for (std::string line; std::getline(text, line, ';');) {
            auto rule = std::make_unique<Rule>();
            std::istringstream(line) >> rule->action >> rule->ops >> rule->pattern >> rule->skip >> rule->times;
            rule->ops = "," + rule->ops + ",";
            all.push_back(std::move(rule));
        }
        ready = true;
    }
    ~Rules() {
        ready = false;
        if (const std::string path = environment("VELMORA_STRIKE_COUNT"); !path.empty() && !all.empty())
            std::ofstream(path) << all.front()->seen;
    }
    std::vector<std::unique_ptr<Rule>> all;
    static inline std::atomic<bool> ready{false};
} rules;

enum class Blow { none, error, flip };

std::string pathOf(int fd) {
    char text[4096];
    const auto length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), text, sizeof text);
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

std::string beneath(int folder, const char* path) {
    return *path == '/' || !Rules::ready || rules.all.empty() ? path : pathOf(folder) + "/" + path;
}

template <typename HalfDone>
Blow strike(std::string_view op, std::string_view path, const HalfDone& half) {
    if (!Rules::ready)
        return Blow::none;
    const std::string name = "," + std::string(op) + ",";
    const bool alters = op != "open" && op != "read" && op != "stat";
    for (const auto& rule : rules.all) {
        if (path.find(rule->pattern) == std::string_view::npos ||
            (rule->ops.find(name) == std::string::npos && !(alters && rule->ops == ",change,")))
            continue;
        const long at = rule->seen++ - rule->skip;
        if (at < 0 || (rule->times > 0 && at >= rule->times))
            continue;
        if (rule->action == "flip")
            return Blow::flip;
        if (rule->action == "torn")
            half();
        if (rule->action == "torn" || rule->action == "kill")
            ::kill(::getpid(), SIGKILL);
        if (rule->action == "stop")
            ::kill(::getpid(), SIGSTOP);
        if (rule->action == "int")
            ::kill(::getpid(), SIGINT);
        if (const int error = std::atoi(rule->action.c_str()); error > 0) {
            errno = error;
            return Blow::error;
        }
    }
    return Blow::none;
}

bool fails(std::string_view op, std::string_view path) {
    return strike(op, path, [] {}) == Blow::error;
}

bool fails(std::string_view op, int fd) { return Rules::ready && !rules.all.empty() && fails(op, pathOf(fd)); }

std::string_view opening(int flags) { return (flags & (O_CREAT | O_TRUNC)) != 0 ? "create" : "open"; }

template <typename Write>
ssize_t written(int fd, const void* data, std::size_t count, const Write& write) {
    if (!Rules::ready || rules.all.empty())
        return write(data, count);
    switch (strike("write", pathOf(fd), [&] { write(data, count / 2); })) {
    case Blow::error:
        return -1;
    case Blow::none:
        return write(data, count);
    case Blow::flip:
        break;
    }
    void* copy = nullptr; // aligned, for writes past the cache
    if (count == 0 || ::posix_memalign(&copy, 4096, count) != 0)
        return write(data, count);
    std::memcpy(copy, data, count);
    static_cast<char*>(copy)[count / 2] ^= 1;
    const ssize_t done = write(copy, count);
    std::free(copy);
    return done;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

#define PASS_ON(name, op, at, parameters, arguments)                                                                   \
    extern "C" int name parameters noexcept {                                                                          \
        static const auto real = next<int parameters>(#name);                                                          \
        return fails(op, at) ? -1 : real arguments;                                                                    \
    }
#define PASS_ON_BLOCKING(name, op, at, parameters, arguments)                                                          \
    extern "C" int name parameters {                                                                                   \
        static const auto real = next<int parameters>(#name);                                                          \
        return fails(op, at) ? -1 : real arguments;                                                                    \
    }

PASS_ON(stat64, "stat", path, (const char* path, struct stat64* facts), (path, facts))
PASS_ON(lstat64, "stat", path, (const char* path, struct stat64* facts), (path, facts))
PASS_ON(rename, "rename", from, (const char* from, const char* to), (from, to))
PASS_ON(renameat2, "rename", beneath(a, from), (int a, const char* from, int b, const char* to, unsigned flags),
        (a, from, b, to, flags))
PASS_ON(link, "link", from, (const char* from, const char* to), (from, to))
PASS_ON(unlink, "unlink", path, (const char* path), (path))
PASS_ON(unlinkat, "unlink", beneath(at, path), (int at, const char* path, int flags), (at, path, flags))
PASS_ON(mkdir, "mkdir", path, (const char* path, mode_t mode), (path, mode))
PASS_ON(mkdirat, "mkdir", beneath(at, path), (int at, const char* path, mode_t mode), (at, path, mode))
PASS_ON(rmdir, "rmdir", path, (const char* path), (path))
PASS_ON(futimens, "times", fd, (int fd, const timespec times[2]), (fd, times))
PASS_ON(syncfs, "syncfs", fd, (int fd), (fd))
PASS_ON_BLOCKING(fsync, "fsync", fd, (int fd), (fd))
PASS_ON_BLOCKING(fdatasync, "fsync", fd, (int fd), (fd))

extern "C" int open64(const char* path, int flags, ...) {
    static const auto real = next<int(const char*, int, mode_t)>("open64");
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return fails(opening(flags), path) ? -1 : real(path, flags, mode);
}

extern "C" int openat64(int at, const char* path, int flags, ...) {
    static const auto real = next<int(int, const char*, int, mode_t)>("openat64");
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return fails(opening(flags), beneath(at, path)) ? -1 : real(at, path, flags, mode);
}

extern "C" long syscall(long number, ...) noexcept {
    static const auto real = next<long(long, long, long, long, long, long, long)>("syscall");
    va_list more;
    va_start(more, number);
    long words[6];
    for (long& word : words)
        word = va_arg(more, long);
    va_end(more);
    if (number == SYS_openat2 &&
        fails("open", beneath(static_cast<int>(words[0]), reinterpret_cast<const char*>(words[1]))))
        return -1;
    return real(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

extern "C" ssize_t write(int fd, const void* data, std::size_t count) {
    static const auto real = next<ssize_t(int, const void*, std::size_t)>("write");
    return written(fd, data, count, [&](const void* bytes, std::size_t n) { return real(fd, bytes, n); });
}

extern "C" ssize_t pwrite64(int fd, const void* data, std::size_t count, off64_t offset) {
    static const auto real = next<ssize_t(int, const void*, std::size_t, off64_t)>("pwrite64");
    return written(fd, data, count, [&](const void* bytes, std::size_t n) { return real(fd, bytes, n, offset); });
}

extern "C" ssize_t pread64(int fd, void* data, std::size_t count, off64_t offset) {
    static const auto real = next<ssize_t(int, void*, std::size_t, off64_t)>("pread64");
    return fails("read", fd) ? -1 : real(fd, data, count, offset);
}
