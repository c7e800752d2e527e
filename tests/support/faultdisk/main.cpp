// velmora_fault_disk BACKING MOUNT [--no-power|--no-syncfs]
//
// Shows BACKING/tree at MOUNT and puts faults in. Commands come on standard input, one a line, each answered by one
// line on standard output ("ok …" or "error …"):
//   rule ACTION ARG OPS SKIP TIMES PATTERN    see Rules.h
//   clear | count OPS | hits | last
//   settle                                    what is unflushed counts as flushed
//   cut SEED GARBAGE                          the power goes: unflushed changes are taken back, the disk answers EIO
// The end of standard input unmounts and ends the program, so no test can leave a mount behind.
//
// --no-power does not remember what is unflushed, for big data. --no-syncfs mounts without a block device of its own,
// so that only the flushes of single files and folders get here.

#define FUSE_USE_VERSION 314
#include "Disk.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <iostream>
#include <linux/fuse.h>
#include <linux/loop.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {

using namespace velmora::faultdisk;

// A small block device for the mount to name as its own: only file systems of type "fuseblk" are told of syncfs. It
// goes away with the mount. An empty answer means that the machine has no loop devices.
std::string blockDevice(const std::string& backing, int& device) {
    const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const std::string path = backing + "/device";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (control < 0 || file < 0 || ftruncate(file, 1 << 20) != 0)
        return {};
    std::string name;
    for (int attempt = 0; attempt < 50 && name.empty(); ++attempt) { // other tests reach for free numbers too
        const int number = ioctl(control, LOOP_CTL_GET_FREE);
        device = open(("/dev/loop" + std::to_string(number)).c_str(), O_RDWR | O_CLOEXEC);
        loop_config config = {};
        config.fd = static_cast<__u32>(file);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (device >= 0 && ioctl(device, LOOP_CONFIGURE, &config) == 0)
            name = "/dev/loop" + std::to_string(number);
        else if (device >= 0)
            close(device);
    }
    close(control);
    close(file);
    return name;
}

// What a server that was killed has left is dead, and cleared by the next one.
void unmountTheDead() {
    std::ifstream table("/proc/self/mounts");
    for (std::string device, path, rest; table >> device >> path && std::getline(table, rest);)
        if (path.find("/velmora-disk-") != std::string::npos && access(path.c_str(), F_OK) != 0 && errno == ENOTCONN)
            umount2(path.c_str(), MNT_DETACH);
}

// A test that was killed leaves its file systems on loop devices behind. One whose blocks lie here must go while they
// are still served: its last flush waits for us, and if we were gone already, for ever.
void unmountWhatLiesHere(const std::string& mountPoint) {
    std::ifstream table("/proc/self/mounts");
    for (std::string device, path, rest; table >> device >> path && std::getline(table, rest);) {
        std::string below;
        if (device.starts_with("/dev/loop"))
            std::getline(std::ifstream("/sys/block/" + device.substr(5) + "/loop/backing_file"), below);
        if (below.starts_with(mountPoint + "/"))
            umount2(path.c_str(), 0);
    }
}

void serve(fuse_session* session, Disk& disk) {
    fuse_buf buffer = {};
    while (!fuse_session_exited(session)) {
        const int got = fuse_session_receive_buf(session, &buffer);
        if (got == -EINTR)
            continue;
        if (got <= 0)
            break;
        const auto* header = static_cast<const fuse_in_header*>(buffer.mem);
        if (header->opcode == FUSE_SYNCFS) { // libfuse 3.14 does not know it
            fuse_out_header reply = {sizeof reply, disk.syncFileSystem(static_cast<pid_t>(header->pid)),
                                     header->unique};
            std::ignore = write(fuse_session_fd(session), &reply, sizeof reply);
            continue;
        }
        fuse_session_process_buf(session, &buffer);
    }
    free(buffer.mem);
}

std::string obey(const std::string& line, Disk& disk) {
    std::istringstream in(line);
    std::string verb;
    in >> verb >> std::ws;
    std::string rest;
    std::getline(in, rest);
    if (verb == "rule")
        disk.rules.add(rest);
    else if (verb == "clear")
        disk.rules.clear();
    else if (verb == "settle") {
        const std::lock_guard lock(disk.mutex);
        disk.power.flushAll(PowerModel::Flush::done);
    } else if (verb == "count")
        return "ok " + std::to_string(disk.rules.count(parseOps(rest)));
    else if (verb == "hits")
        return "ok " + std::to_string(disk.rules.hits());
    else if (verb == "last")
        return "ok " + disk.rules.lastHit();
    else if (verb == "cut") {
        std::istringstream numbers(rest);
        std::uint64_t seed = 0;
        unsigned garbage = 0;
        numbers >> seed >> garbage;
        disk.rules.clear();
        disk.rules.add("crash 0 any 0 1 *");
        disk.rules.judge(Op::syncfs, "/", 0, 0); // whatever still comes meets EIO
        const std::lock_guard lock(disk.mutex);
        return "ok " + disk.power.cut(seed, garbage);
    } else
        return "error no such command: " + verb;
    return "ok";
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    const std::string backing = argv[1], mountPoint = argv[2];
    umask(0);
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    unmountTheDead();
    for (const char* name : {"/tree", "/grave"})
        mkdir((backing + name).c_str(), 0755);
    const std::string_view option = argc < 4 ? "" : argv[3];
    Disk disk(open((backing + "/tree").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC),
              open((backing + "/grave").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), option != "--no-power");

    int device = -1;
    const std::string block = option == "--no-syncfs" ? "" : blockDevice(backing, device);
    fuse_args args = FUSE_ARGS_INIT(0, nullptr);
    const std::string options =
        "-oallow_other,default_permissions" +
        (block.empty() ? std::string(",fsname=faultdisk") : ",blkdev,blksize=4096,fsname=" + block);
    fuse_opt_add_arg(&args, "velmora_fault_disk");
    fuse_opt_add_arg(&args, options.c_str());
    fuse* instance = fuse_new(&args, &operations(), sizeof(fuse_operations), &disk);
    if (!instance || fuse_mount(instance, mountPoint.c_str()) != 0) {
        std::cout << "error cannot mount: " << std::strerror(errno) << std::endl;
        return 1;
    }
    if (device >= 0)
        close(device);           // the mount holds it now
    for (int i = 0; i < 16; ++i) // more than a stalled test can block
        std::thread([&] { serve(fuse_get_session(instance), disk); }).detach();
    std::cout << (block.empty() ? "ok without syncfs" : "ok") << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::string reply;
        try {
            reply = obey(line, disk);
        } catch (const std::exception& error) {
            reply = std::string("error ") + error.what();
        }
        std::cout << reply << std::endl;
    }
    disk.rules.clear();
    unmountWhatLiesHere(mountPoint);
    umount2(mountPoint.c_str(), MNT_DETACH);
    _exit(0);
}
