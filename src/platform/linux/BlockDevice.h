#pragma once

#include <string>

namespace velmora::BlockDevice {

// What is known of the file system on a block device; unknown values are empty. Names are those of libblkid.
struct Identity {
    std::string type; // "exfat", "vfat", "ntfs", "ext4", …
    std::string uuid;
    std::string label;
};

// From udev's properties, which need no right to read the device, else from the device itself. Never throws.
Identity identify(const std::string& device);

} // namespace velmora::BlockDevice
