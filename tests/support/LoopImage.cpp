#include "support/LoopImage.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sched.h>
#include <signal.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace velmora::test {

namespace {

// Before main, while there is one thread: a namespace belongs to the threads that are started after it.
const bool ownNamespace =
    ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;

constexpr const char* exfatProgram = "/usr/sbin/mount.exfat-fuse";

struct Facts {
    const char* name;
    std::int64_t leastMebibytes;
    const char* makeOptions;
};
const Facts& factsOf(LoopImage::Kind kind) {
    static constexpr Facts all[] = {
        {"ext4", 64, "-q -F"}, {"xfs", 320, "-q -f"}, {"btrfs", 256, "-q -f"}, {"exfat", 64, ""}};
    return all[static_cast<int>(kind)];
}

bool isMountPoint(const std::string& path) {
    struct stat here{};
    struct stat above{};
    return ::stat(path.c_str(), &here) == 0 && ::stat((path + "/..").c_str(), &above) == 0 &&
           here.st_dev != above.st_dev;
}

// In the foreground, where it is our child and dies with the thread that started it.
pid_t startExfatDaemon(const char* mode, const std::string& device, const std::string& mountPoint) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nothing = ::open("/dev/null", O_RDWR);
        for (const int fd : {0, 1, 2})
            ::dup2(nothing, fd);
        ::execl(exfatProgram, exfatProgram, "-d", "-o", mode, device.c_str(), mountPoint.c_str(), nullptr);
        ::_exit(127);
    }
    return pid;
}

} // namespace

std::string shell(const std::string& command) {
    FILE* pipe = ::popen(("{ PATH=$PATH:/usr/sbin:/sbin; " + command + "; } 2>&1").c_str(), "re");
    std::string output(4096, '\0');
    output.resize(::fread(output.data(), 1, output.size(), pipe));
    if (::pclose(pipe) != 0)
        throw std::runtime_error(command + ": " + output);
    return output.substr(0, output.find_last_not_of('\n') + 1);
}

const char* LoopImage::name(Kind kind) { return factsOf(kind).name; }

std::optional<std::string> LoopImage::unavailable(Kind kind) {
    if (::geteuid() != 0)
        return "needs root";
    if (!ownNamespace)
        return "needs a mount namespace of its own";
    if (::access("/dev/loop-control", R_OK | W_OK) != 0)
        return "there are no loop devices";
    if (::access(fmt::format("/usr/sbin/mkfs.{}", name(kind)).c_str(), X_OK) != 0)
        return fmt::format("mkfs.{} is not installed", name(kind));
    if (kind == Kind::exfat)
        return ::access(exfatProgram, X_OK) == 0 ? std::nullopt : std::optional("mount.exfat-fuse is not installed");
    std::ifstream known("/proc/filesystems");
    for (std::string word; known >> word;)
        if (word == name(kind))
            return std::nullopt;
    return std::string("this kernel has no ") + name(kind);
}

LoopImage::LoopImage(Kind kind, std::int64_t mebibytes, const std::string& label)
    : kind_(kind), mountPoint_(folder_ / "mounted") {
    const std::string image = folder_ / "image";
    const Facts& facts = factsOf(kind);
    shell(fmt::format("truncate -s {}M '{}'", std::max(mebibytes, facts.leastMebibytes), image));
    shell(fmt::format("mkfs.{} {} -L '{}' '{}'", facts.name, facts.makeOptions, label, image));
    attach(image, "");
}

LoopImage::LoopImage(Kind kind, const std::string& image) : kind_(kind), mountPoint_(folder_ / "mounted") {
    attach(image, "--direct-io=on"); // past the cache of the loop device
}

LoopImage::~LoopImage() { detach(); }

void LoopImage::attach(const std::string& image, const std::string& options) try {
    std::filesystem::create_directory(mountPoint_);
    device_ = shell(fmt::format("losetup --find --show {} '{}'", options, image));
    deviceFd_ = ::open(device_.c_str(), O_RDWR | O_CLOEXEC);
    shell("losetup --detach " + device_); // it is in use: it goes with its last user
    mount();
} catch (...) {
    detach();
    throw;
}

void LoopImage::mount(bool readOnly) {
    const char* mode = readOnly ? "ro" : "rw";
    if (kind_ != Kind::exfat) {
        shell(fmt::format("mount -t {} -o {} {} '{}'", name(kind_), mode, device_, mountPoint_));
        return;
    }
    daemon_ = startExfatDaemon(mode, device_, mountPoint_);
    for (int wait = 0; wait < 500 && !isMountPoint(mountPoint_); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!isMountPoint(mountPoint_))
        throw std::runtime_error("mount.exfat-fuse did not mount " + device_);
}

void LoopImage::unmount() {
    shell("umount '" + mountPoint_ + "'");
    if (daemon_ > 0)
        ::waitpid(daemon_, nullptr, 0); // it writes its last blocks after the umount has returned
    daemon_ = -1;
}

void LoopImage::detach() noexcept {
    if (isMountPoint(mountPoint_) && ::umount2(mountPoint_.c_str(), MNT_FORCE) != 0)
        ::umount2(mountPoint_.c_str(), MNT_DETACH);
    if (daemon_ > 0) {
        ::kill(daemon_, SIGTERM);
        ::waitpid(daemon_, nullptr, 0);
    }
    if (deviceFd_ >= 0)
        ::close(deviceFd_);
}

} // namespace velmora::test
