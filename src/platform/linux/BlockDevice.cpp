#include "platform/linux/BlockDevice.h"

#include "base/Mutex.h"

#include <fmt/format.h>

#include <algorithm>
#include <blkid/blkid.h>
#include <filesystem>
#include <fstream>
#include <libudev.h>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace velmora::BlockDevice {

namespace fs = std::filesystem;

namespace {

struct Release {
    void operator()(udev* handle) const { udev_unref(handle); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
    void operator()(blkid_struct_probe* probe) const { blkid_free_probe(probe); }
};

// udev writes characters that a property cannot hold as \xNN.
std::string decoded(const char* value) {
    std::string out;
    for (const char* at = value == nullptr ? "" : value; *at != '\0'; ++at) {
        const auto hex = [](char c) {
            return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        };
        if (at[0] == '\\' && at[1] == 'x' && hex(at[2]) >= 0 && hex(at[3]) >= 0) {
            out += static_cast<char>(hex(at[2]) * 16 + hex(at[3]));
            at += 3;
        } else {
            out += *at;
        }
    }
    return out;
}

// libudev asks that no two threads use it at once: behind its handles stands a seed that all of them share. The lock
// is held over the read of one small file in /run.
Mutex& udevLock() {
    static Mutex lock;
    return lock;
}

Identity fromUdev(dev_t number) {
    const MutexLock held(udevLock());
    const std::unique_ptr<udev, Release> handle(udev_new());
    if (handle == nullptr)
        return {};
    const std::unique_ptr<udev_device, Release> device(udev_device_new_from_devnum(handle.get(), 'b', number));
    if (device == nullptr)
        return {};
    const auto property = [&](const char* name) { return decoded(udev_device_get_property_value(device.get(), name)); };
    return {property("ID_FS_TYPE"), property("ID_FS_UUID"), property("ID_FS_LABEL_ENC"), property("ID_FS_VERSION")};
}

Identity fromDevice(const std::string& path) {
    const std::unique_ptr<blkid_struct_probe, Release> probe(blkid_new_probe_from_filename(path.c_str()));
    if (probe == nullptr)
        return {};
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABEL |
                                                       BLKID_SUBLKS_VERSION);
    if (blkid_do_safeprobe(probe.get()) != 0)
        return {};
    const auto value = [&](const char* name) {
        const char* text = nullptr;
        return blkid_probe_lookup_value(probe.get(), name, &text, nullptr) == 0 && text != nullptr ? std::string(text)
                                                                                                   : std::string();
    };
    return {value("TYPE"), value("UUID"), value("LABEL"), value("VERSION")};
}

// Folder names in sysfs end a line of text at most; a missing file reads as empty.
std::string attribute(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

void collectDisks(const fs::path& device, std::vector<std::string>& disks, int depth) {
    constexpr int deepest = 8; // stacks of RAID, encryption and volumes are two or three high
    std::error_code none;
    const fs::path slaves = device / "slaves";
    bool stacked = false;
    if (depth < deepest)
        for (fs::directory_iterator at(slaves, none), end; !none && at != end; at.increment(none)) {
            stacked = true;
            collectDisks(fs::canonical(at->path(), none), disks, depth + 1);
        }
    if (stacked)
        return;
    const fs::path whole = fs::exists(device / "partition", none) ? device.parent_path() : device;
    const std::string name = whole.filename();
    if (!name.empty() && std::ranges::find(disks, name) == disks.end())
        disks.push_back(name);
}

} // namespace

std::vector<std::string> wholeDisks(const std::string& device, dev_t number, const std::string& sysfs) {
    std::error_code none;
    fs::path found;
    // Btrfs shows a number that belongs to no device; a pulled or invented device node is known by its name alone.
    if (major(number) != 0)
        found = fs::canonical(fmt::format("{}/dev/block/{}:{}", sysfs, major(number), minor(number)), none);
    if (found.empty() && device.starts_with("/dev/")) {
        const fs::path node = fs::canonical(device, none);
        const std::string name = (node.empty() ? fs::path(device) : node).filename();
        found = fs::canonical(sysfs + "/class/block/" + name, none);
    }
    std::vector<std::string> disks;
    if (!found.empty())
        collectDisks(found, disks, 0);
    return disks;
}

bool isPluggable(const std::string& disk, const std::string& sysfs) {
    std::error_code none;
    if (disk.starts_with("loop"))
        return true;
    const fs::path device = fs::canonical(sysfs + "/class/block/" + disk, none);
    if (device.empty())
        return false;
    if (attribute(device / "removable") == "1")
        return true;
    // The kernel says "removable" of what hangs on an outside port (USB, Thunderbolt); SD cards sit on an mmc bus,
    // whose soldered kind says so in its type.
    const fs::path root = fs::canonical(sysfs, none);
    for (fs::path at = device.parent_path(); at.string().size() > root.string().size(); at = at.parent_path()) {
        const std::string name = at.filename();
        if (attribute(at / "removable") == "removable" || name.starts_with("usb") || name.starts_with("fw"))
            return true;
        if (attribute(at / "type") == "SD")
            return true;
    }
    return false;
}

Identity identify(const std::string& device) {
    struct stat info{};
    if (::stat(device.c_str(), &info) != 0 || !S_ISBLK(info.st_mode))
        return {};
    Identity identity = fromUdev(info.st_rdev);
    return identity.type.empty() ? fromDevice(device) : identity;
}

} // namespace velmora::BlockDevice
