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

// Runs a command of the system and gives its standard output without the last line end.
std::string run(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "re");
    std::string output(4096, '\0');
    output.resize(fread(output.data(), 1, output.size(), pipe));
    if (pclose(pipe) != 0)
        throw std::runtime_error(command + ": " + output);
    return output.substr(0, output.find_last_not_of('\n') + 1);
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
                                     power == Power::ignored ? "--no-power" : nullptr, nullptr};
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
void FaultDisk::crash(const At& at) { rule("crash", 0, at); }
void FaultDisk::clear() { ask("clear"); }

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
    if (auto reason = FaultDisk::unavailable())
        return reason;
    if (access("/dev/loop-control", R_OK | W_OK) != 0)
        return "no loop devices here";
    return std::nullopt;
}

PowerCutDisk::PowerCutDisk(std::int64_t bytes, const std::string& type) : folder_(freshFolder()), type_(type) {
    mount_ = folder_ + "/mount";
    fs::create_directory(mount_);
    disk_.emplace();
    const std::string image = disk_->medium() + "/disk.img";
    run(fmt::format("truncate -s {} {}", bytes, image));
    run(fmt::format("mkfs.{} -q {}", type_, image));
    attach(disk_->root() + "/disk.img");
}

PowerCutDisk::~PowerCutDisk() {
    try {
        detach();
        disk_.reset();
        fs::remove_all(folder_);
    } catch (const std::exception& error) {
        fmt::print(stderr, "PowerCutDisk: {}\n", error.what());
    }
}

void PowerCutDisk::attach(const std::string& image) {
    // Past the cache of the loop device: every block write and every flush of the file system reaches the image.
    loop_ = run(fmt::format("losetup --find --show --direct-io=on {}", image));
    run(fmt::format("mount -t {} {} {}", type_, loop_, mount_));
}

void PowerCutDisk::detach() {
    if (loop_.empty())
        return;
    if (umount2(mount_.c_str(), MNT_FORCE) != 0)
        umount2(mount_.c_str(), MNT_DETACH);
    run("losetup --detach " + std::exchange(loop_, {}));
}

std::string PowerCutDisk::cutPowerAndRestart(std::uint64_t seed) {
    // The device dies under the mounted file system; what that still tries to write meets errors.
    disk_->fail(EIO, {.ops = "write,fsync", .times = 0});
    detach();
    const auto said = disk_->cutPower(seed, 0);
    attach(disk_->medium() + "/disk.img");
    return said;
}

} // namespace velmora::test
