#include "support/LoopImage.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <linux/loop.h>
#include <sched.h>
#include <signal.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace velmora::test {

namespace {

// Before main, while there is one thread: a namespace belongs to the threads that are started after it.
const bool ownNamespace =
    ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

std::string programFor(LoopImage::Kind kind) { return std::string("mkfs.") + LoopImage::name(kind); }

std::string findProgram(const std::string& name) {
    for (const char* folder : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"})
        if (::access((folder + name).c_str(), X_OK) == 0)
            return folder + name;
    return "";
}

// Starts a program with its output thrown away; it dies with the thread that started it.
pid_t start(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0)
        fail("fork");
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nothing = ::open("/dev/null", O_RDWR);
        for (const int fd : {0, 1, 2})
            ::dup2(nothing, fd);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

void run(const std::vector<std::string>& arguments) {
    const pid_t pid = start(arguments);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0)
        throw std::runtime_error(arguments[0] + " ended with status " + std::to_string(status));
}

bool isMountPoint(const std::string& path) {
    struct stat here{};
    struct stat above{};
    return ::stat(path.c_str(), &here) == 0 && ::stat((path + "/..").c_str(), &above) == 0 &&
           here.st_dev != above.st_dev;
}

std::vector<std::string> makeCommand(LoopImage::Kind kind, const std::string& label, const std::string& device) {
    const std::string program = findProgram(programFor(kind));
    switch (kind) {
    case LoopImage::Kind::ext4:
        return {program, "-q", "-F", "-L", label, device};
    case LoopImage::Kind::xfs:
        return {program, "-q", "-f", "-L", label, device};
    case LoopImage::Kind::btrfs:
        return {program, "-q", "-f", "-L", label, device};
    default:
        return {program, "-L", label, device};
    }
}

std::int64_t leastMebibytes(LoopImage::Kind kind) {
    return kind == LoopImage::Kind::xfs ? 320 : kind == LoopImage::Kind::btrfs ? 256 : 64;
}

} // namespace

const char* LoopImage::name(Kind kind) {
    static constexpr const char* names[] = {"ext4", "xfs", "btrfs", "exfat"};
    return names[static_cast<int>(kind)];
}

std::optional<std::string> LoopImage::unavailable(Kind kind) {
    if (::geteuid() != 0)
        return "needs root";
    if (!ownNamespace)
        return "needs a mount namespace of its own";
    if (::access("/dev/loop-control", R_OK | W_OK) != 0)
        return "there are no loop devices";
    if (findProgram(programFor(kind)).empty())
        return programFor(kind) + " is not installed";
    if (kind == Kind::exfat)
        return findProgram("mount.exfat-fuse").empty() ? std::optional("mount.exfat-fuse is not installed")
                                                       : std::nullopt;
    std::ifstream known("/proc/filesystems");
    for (std::string word; known >> word;)
        if (word == name(kind))
            return std::nullopt;
    return std::string("this kernel has no ") + name(kind);
}

LoopImage::LoopImage(Kind kind, std::int64_t mebibytes, const std::string& label)
    : kind_(kind), mountPoint_(folder_ / "mounted") {
    std::ofstream(image()).close();
    std::filesystem::resize_file(image(), static_cast<std::uintmax_t>(std::max(mebibytes, leastMebibytes(kind))) << 20);
    std::filesystem::create_directory(mountPoint_);
    try {
        attach();
        run(makeCommand(kind, label, device_));
        mount();
    } catch (...) {
        detach();
        throw;
    }
}

LoopImage::~LoopImage() { detach(); }

// Two programs may be told the same free number; the slower one asks again.
void LoopImage::attach() {
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int file = ::open(image().c_str(), O_RDWR | O_CLOEXEC);
    for (int attempt = 0; control >= 0 && file >= 0 && attempt < 100 && deviceFd_ < 0; ++attempt) {
        const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
        if (number < 0)
            break;
        device_ = "/dev/loop" + std::to_string(number);
        const int fd = ::open(device_.c_str(), O_RDWR | O_CLOEXEC);
        loop_config config{};
        config.fd = static_cast<std::uint32_t>(file);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (fd >= 0 && ::ioctl(fd, LOOP_CONFIGURE, &config) == 0)
            deviceFd_ = fd;
        else if (fd >= 0)
            ::close(fd);
    }
    const int code = errno;
    for (const int fd : {control, file})
        if (fd >= 0)
            ::close(fd);
    errno = code;
    if (deviceFd_ < 0)
        fail("loop device");
}

void LoopImage::mount(bool readOnly) {
    if (kind_ != Kind::exfat) {
        if (::mount(device_.c_str(), mountPoint_.c_str(), name(kind_), readOnly ? MS_RDONLY : 0, nullptr) != 0)
            fail("mount " + device_);
        return;
    }
    // -d keeps the daemon in the foreground, where it is our child and dies with us.
    daemon_ = start({findProgram("mount.exfat-fuse"), "-d", "-o", readOnly ? "ro" : "rw", device_, mountPoint_});
    for (int wait = 0; wait < 500 && !isMountPoint(mountPoint_); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!isMountPoint(mountPoint_))
        throw std::runtime_error("mount.exfat-fuse did not mount " + device_);
}

void LoopImage::unmount() {
    if (isMountPoint(mountPoint_) && ::umount2(mountPoint_.c_str(), 0) != 0)
        fail("umount " + mountPoint_);
    if (daemon_ > 0)
        ::waitpid(daemon_, nullptr, 0); // it writes its last blocks after the umount has returned
    daemon_ = -1;
}

void LoopImage::detach() noexcept {
    if (isMountPoint(mountPoint_))
        ::umount2(mountPoint_.c_str(), MNT_DETACH);
    if (daemon_ > 0) {
        ::kill(daemon_, SIGTERM);
        ::waitpid(daemon_, nullptr, 0);
    }
    if (deviceFd_ >= 0)
        ::close(deviceFd_);
    deviceFd_ = -1;
    daemon_ = -1;
}

} // namespace velmora::test
