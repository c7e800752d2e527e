#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace velmora::BlockDevice {

// What is known of the file system on a block device; unknown values are empty. Names are those of libblkid.
struct Identity {
    std::string type; // "exfat", "vfat", "ntfs", "ext4", …
    std::string uuid;
    std::string label;
    std::string version; // "FAT32", "FAT16", "FAT12" on FAT
};

// From udev's properties, which need no right to read the device, else from the device itself. Never throws.
Identity identify(const std::string& device);

// The kernel's names of the whole disks that a device lies on: "sdb" for the partition sdb1, all members for a device
// that stacks on others. Found by `number` when sysfs knows it, else by the device's name; empty when there is no disk.
std::vector<std::string> wholeDisks(const std::string& device, dev_t number, const std::string& sysfs);

// Whether a user can take this disk away: removable medium, a bus that is plugged, or an image behind a loop device.
bool isPluggable(const std::string& disk, const std::string& sysfs);

} // namespace velmora::BlockDevice
