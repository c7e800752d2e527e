#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace velmora {

// One line of the kernel's mount table, names already unescaped.
struct MountEntry {
    int id = 0;
    std::string mountPoint;
    std::string device; // "/dev/sdb1", "server:/export", "tmpfs", …
    std::string type;   // as the kernel says it: "ext4", "vfat", "fuseblk", "fuse.sshfs", …
    std::string root;   // what of the file system is mounted there: "/" for all of it, else a folder (bind mount)
    dev_t deviceNumber = 0;
    bool network = false;
    bool pseudo = false; // proc, tmpfs, overlay, …: no disk of its own
    bool readOnly = false;
};

namespace MountTable {

inline constexpr const char* systemTable = "/proc/self/mountinfo";

// In mount order. Throws IOError("mounts", …) when the table cannot be read; lines that make no sense are left out.
std::vector<MountEntry> read(const std::string& mountinfo = systemTable);

// By their words alone: `path` is `folder` or lies below it.
bool isAtOrBelow(std::string_view path, std::string_view folder);

// The mount that `path`, already free of links, lies on. Of mounts on top of each other the last one holds.
std::optional<MountEntry> entryOf(const std::vector<MountEntry>& table, std::string_view realPath);

// The same for any path, from the system's table: there the kernel itself says which mount it is, also where mounts
// hide each other. Cheap to ask often: the table is parsed again
// only after a change. Throws IOError("realpath", …) when the path does not exist.
std::optional<MountEntry> entryOf(const std::string& path);

// The type as this system names it: "msdos" for every FAT, "exfat" and "ntfs" also behind FUSE, whose daemons all say
// "fuseblk". Asks udev, then the device itself; without both a "fuseblk" stays one.
std::string filesystemType(const MountEntry& entry);

} // namespace MountTable

} // namespace velmora
