#pragma once

#include "base/Timestamp.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// What the system knows of mounted volumes. Nothing here throws: a path that does not exist, a disk that was pulled or
// a right that is missing gives "nothing" or the careful answer.
namespace VolumeFacts {

// Where the facts are read. Tests put their own tables in place of the system's.
struct System {
    std::string mountinfo = "/proc/self/mountinfo";
    std::string sysfs = "/sys";
};

struct Mount {
    std::string mountPoint;
    std::string device; // "/dev/sdb1", or what a network file system calls its source
    std::string fsType; // the kernel's name of it
    bool local = true;  // false: the data lives behind a network
    bool readOnly = false;
};

// The mount that a path lies on.
std::optional<Mount> mount(const std::string& path, const System& system = {});

// Links resolved as far as the path exists; the rest, or a path that does not exist, stays as it is without "." and
// trailing slashes.
std::string realPath(const std::string& path);

// The path below its mount point, without a leading slash: "" for the mount point itself. The whole path when nothing
// is known of its mount.
std::string underRoot(const std::string& path, const System& system = {});

// The number of the path's file system and the path on it, "8:17/DCIM/x". Unlike the path itself it is the same through
// every mount of that file system, bind mounts included. None when nothing is known of its mount.
std::optional<std::string> placeOnVolume(const std::string& path, const System& system = {});

bool isVolumeRoot(const std::string& path, const System& system = {}); // the path is a mount point
// Looks like a path on a user's volume: it lies below one of the places where those are mounted. Nothing on disk is
// looked at.
bool isUserVolumePath(std::string_view path);
// The disk that belongs at `path` is away: the path, with links resolved, lies at or below one of those places, and
// nothing is mounted at it or between it and that place. What is written there would land on the system's own disk. A
// volume that is mounted on first use is waited for. True as well when the mount table cannot be read.
bool awaitsVolume(const std::string& path, const System& system = {});
// The volumes that a user works with, in the order of mounting: file systems with data on them, below those places.
std::vector<Mount> userVolumes(const System& system = {});

// Of the whole file system, in bytes; 0 when unknown.
std::int64_t capacity(const std::string& path);
// As the file system carries it: "1A2B-3C4D" on FAT and exFAT, sixteen digits on NTFS, a UUID elsewhere. Comes from
// udev, or from the device where this user may read it.
std::optional<std::string> volumeUUID(const std::string& path, const System& system = {});
std::optional<std::string> label(const std::string& path, const System& system = {});
// "FAT32" or "FAT16" (which is FAT12 too) for a path on FAT. From udev or the device, else from the number of clusters,
// which everybody may ask.
std::string fatName(const std::string& path, const System& system = {});
// When the volume was formatted. Only ext2 to ext4 keep it, and only who may read the device learns it.
std::optional<Timestamp> created(const std::string& path, const System& system = {});
// The label, else the mount point's last component, when `path` is a mount point; "" otherwise.
std::string nameOfVolumeAt(const std::string& path, const System& system = {});

// A disk that is built in: on no removable medium and on no bus that is plugged by the user. File systems without a
// disk of their own (tmpfs, overlay, most FUSE daemons) count as internal, network ones do not.
bool isInternal(const std::string& path, const System& system = {});
// The disk that the system runs from ("/" or "/boot" or "/usr"), whichever of its partitions `path` lies on.
bool isSystemDisk(const std::string& path, const System& system = {});
// Names of the whole disks below a device ("sdb" for "/dev/sdb1", the members for a RAID or an encrypted volume).
std::vector<std::string> wholeDisks(const std::string& device, const System& system = {});

// The first bytes of a block device or an image, opened for reading only; fewer or none when they cannot be read.
std::vector<std::byte> readFirstBytes(const std::string& device, std::size_t count);

} // namespace VolumeFacts

} // namespace velmora
