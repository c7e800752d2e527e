#include "support/FaultDisk.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace velmora::test {

namespace fs = std::filesystem;

namespace {

std::string freshFolder() {
    std::string pattern = fs::temp_directory_path() / "velmora-disk-XXXXXX";
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("cannot make a temporary folder");
    return pattern;
}

} // namespace

std::optional<std::string> FaultDisk::unavailable() {
    if (access("/dev/fuse", R_OK | W_OK) != 0 || geteuid() != 0)
        return "no FUSE here (needs /dev/fuse and root)";
    return std::nullopt;
}

FaultDisk::FaultDisk(const std::string& backing, Power power) {
    own_ = freshFolder();
    backing_ = backing.empty() ? own_ : backing;
    mount_ = own_ + "/mount";
    fs::create_directory(mount_);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("socketpair");
    const char* const arguments[] = {VELMORA_FAULT_DISK, backing_.c_str(), mount_.c_str(),
                                     power == Power::ignored   ? "--no-power"
                                     : power == Power::perFile ? "--no-syncfs"
                                                               : nullptr,
                                     nullptr};
    server_ = fork();
    if (server_ == 0) {
        setsid(); // Ctrl-C at the test's terminal is the test's business
        dup2(ends[1], STDIN_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        execv(arguments[0], const_cast<char**>(arguments));
        _exit(127);
    }
    close(ends[1]);
    control_ = ends[0];
    ask({});
}

FaultDisk::~FaultDisk() {
    try {
        unmount();
        std::error_code ignored;
        fs::remove_all(own_, ignored);
    } catch (const std::exception& error) {
        fmt::print(stderr, "FaultDisk: {}\n", error.what());
    }
}

void FaultDisk::unmount() {
    if (server_ < 0)
        return;
    close(control_);
    int status = 0;
    waitpid(server_, &status, 0);
    server_ = -1;
    if (status != 0) {
        umount2(mount_.c_str(), MNT_DETACH);
        throw std::runtime_error(fmt::format("the disk's server ended with status {}", status));
    }
}

std::string FaultDisk::ask(const std::string& line) {
    if (!line.empty() && send(control_, (line + "\n").data(), line.size() + 1, MSG_NOSIGNAL) < 0)
        throw std::runtime_error("the disk's server is gone");
    for (std::size_t end; (end = pending_.find('\n')) == std::string::npos;) {
        char bytes[4096];
        const auto got = recv(control_, bytes, sizeof bytes, 0);
        if (got <= 0)
            throw std::runtime_error("the disk's server is gone");
        pending_.append(bytes, static_cast<std::size_t>(got));
    }
    const auto end = pending_.find('\n');
    const std::string answer = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    if (!answer.starts_with("ok"))
        throw std::runtime_error("the disk's server says: " + answer);
    return answer.size() > 3 ? answer.substr(3) : std::string();
}

void FaultDisk::rule(std::string_view action, std::int64_t argument, const At& at) {
    ask(fmt::format("rule {} {} {} {} {} {}", action, argument, at.ops, at.skip, at.times, at.pattern));
}

void FaultDisk::fail(int error, const At& at) { rule("fail", error, at); }
void FaultDisk::cutShort(std::int64_t bytes, const At& at) { rule("short", bytes, at); }
void FaultDisk::flip(const At& at, std::int64_t bit) { rule("flip", bit, at); }
void FaultDisk::delay(std::int64_t milliseconds, const At& at) { rule("delay", milliseconds, at); }
void FaultDisk::stall(const At& at) { rule("stall", 0, at); }
void FaultDisk::crash(const At& at, bool behind) { rule("crash", behind ? 1 : 0, at); }
void FaultDisk::clear() { ask("clear"); }
void FaultDisk::settle() { ask("settle"); }

void FaultDisk::fillUp(std::int64_t bytesLeft, const std::string& pattern) {
    rule("full", bytesLeft, {.ops = "write", .times = 0, .pattern = pattern});
}

void FaultDisk::turnReadOnly(const At& at) { rule("readonly", EROFS, at); }
void FaultDisk::vanish(const At& at) { rule("vanish", ENODEV, at); }

std::int64_t FaultDisk::count(std::string_view ops) { return std::stoll(ask(fmt::format("count {}", ops))); }
std::int64_t FaultDisk::hits() { return std::stoll(ask("hits")); }
std::string FaultDisk::lastHit() { return ask("last"); }

std::string FaultDisk::cutPower(std::uint64_t seed, unsigned garbagePercent) {
    const auto said = ask(fmt::format("cut {} {}", seed, garbagePercent));
    unmount();
    return fmt::format("power cut, seed {}: {}", seed, said);
}

std::optional<std::string> PowerCutDisk::unavailable() {
    auto reason = FaultDisk::unavailable();
    return reason ? reason : LoopImage::unavailable(LoopImage::Kind::ext4);
}

PowerCutDisk::PowerCutDisk(std::int64_t mebibytes) {
    const std::string image = disk_.medium() + "/disk.img";
    shell(fmt::format("truncate -s {}M {} && mkfs.ext4 -q {}", mebibytes, image, image));
    image_.emplace(LoopImage::Kind::ext4, disk_.root() + "/disk.img");
}

std::string PowerCutDisk::cutPowerAndRestart(std::uint64_t seed) {
    // The device dies under the mounted file system; what that still tries to write meets errors.
    disk_.fail(EIO, {.ops = "write,fsync", .times = 0});
    image_.reset();
    const auto said = disk_.cutPower(seed, 0);
    image_.emplace(LoopImage::Kind::ext4, disk_.medium() + "/disk.img");
    return said;
}

} // namespace velmora::test
