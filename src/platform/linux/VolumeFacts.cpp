#include "platform/VolumeFacts.h"

#include "platform/IO.h"
#include "platform/linux/BlockDevice.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/OpenFile.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

namespace velmora::VolumeFacts {

namespace {

constexpr std::string_view automounter = "autofs";

std::vector<MountEntry> table(const System& system) try {
    return MountTable::read(system.mountinfo);
} catch (const IOError&) {
    return {};
}

std::optional<MountEntry> entryOf(const std::string& path, const System& system) try {
    if (system.mountinfo == MountTable::systemTable && IO::exists(path))
        return MountTable::entryOf(path);
    return MountTable::entryOf(table(system), realPath(path));
} catch (const IOError&) {
    return std::nullopt;
}

Mount mountFrom(const MountEntry& entry) {
    return {entry.mountPoint, entry.device, entry.type, !entry.network, entry.readOnly};
}

std::optional<BlockDevice::Identity> identityOf(const std::string& path, const System& system) {
    const auto entry = entryOf(path, system);
    return entry ? std::optional(BlockDevice::identify(entry->device)) : std::nullopt;
}

std::optional<std::string> unlessEmpty(std::string text) {
    return text.empty() ? std::nullopt : std::optional(std::move(text));
}

std::vector<std::string> disksOf(const MountEntry& entry, const System& system) {
    return BlockDevice::wholeDisks(entry.device, entry.deviceNumber, system.sysfs);
}

} // namespace

std::optional<Mount> mount(const std::string& path, const System& system) {
    const auto entry = entryOf(path, system);
    return entry ? std::optional(mountFrom(*entry)) : std::nullopt;
}

std::string realPath(const std::string& path) {
    std::string head = path.empty() ? "." : path;
    std::string tail;
    while (true) {
        try {
            const std::string real = IO::realPath(head);
            return tail.empty() ? real : (real == "/" ? "" : real) + tail;
        } catch (const IOError&) {
            while (head.size() > 1 && head.back() == '/')
                head.pop_back();
            const std::size_t slash = head.find_last_of('/');
            const std::string name = head.substr(slash == std::string::npos ? 0 : slash + 1);
            if (!name.empty() && name != ".")
                tail.insert(0, "/" + name);
            head = slash == std::string::npos ? "." : head.substr(0, std::max<std::size_t>(slash, 1));
            if (head == path)
                return path; // nothing of it exists, not even where it starts
        }
    }
}

std::string underRoot(const std::string& path, const System& system) {
    std::string real = realPath(path);
    const auto entry = entryOf(path, system);
    if (!entry)
        return real;
    std::string_view below = real;
    if (below.starts_with(entry->mountPoint))
        below.remove_prefix(entry->mountPoint.size());
    while (below.starts_with('/'))
        below.remove_prefix(1);
    return std::string(below);
}

std::optional<std::string> placeOnVolume(const std::string& path, const System& system) {
    const auto entry = entryOf(path, system);
    if (!entry)
        return std::nullopt;
    std::string place = std::to_string(major(entry->deviceNumber)) + ":" + std::to_string(minor(entry->deviceNumber));
    if (entry->root != "/")
        place += entry->root;
    const std::string below = underRoot(path, system);
    return below.empty() ? place : place + "/" + below;
}

bool isVolumeRoot(const std::string& path, const System& system) {
    const auto entry = entryOf(path, system);
    return entry && entry->mountPoint == realPath(path);
}

bool isUserVolumePath(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    if (path == "/mnt")
        return true;
    for (const std::string_view place : {"/media/", "/run/media/", "/mnt/", "/Volumes/"})
        if (path.size() > place.size() && path.starts_with(place))
            return true;
    return false;
}

bool awaitsVolume(const std::string& path, const System& system) {
    const std::string real = realPath(path);
    for (const char* const name : {"/media", "/run/media", "/mnt", "/Volumes"}) {
        const std::string place = realPath(name); // some systems keep it elsewhere and leave a link
        if (!MountTable::isAtOrBelow(real, place))
            continue;
        auto entry = entryOf(path, system);
        if (entry && entry->type == automounter) {
            // Only an open makes the automounter act; a stat does not.
            const Descriptor opened(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            entry = entryOf(path, system);
        }
        if (!entry || entry->type == automounter || !MountTable::isAtOrBelow(entry->mountPoint, place))
            return true;
        // A file system without a disk that only holds mount points (a tmpfs over all of /mnt) is no place for a
        // backup.
        return entry->pseudo && entry->mountPoint == place && real != place;
    }
    return false;
}

std::vector<Mount> userVolumes(const System& system) {
    std::vector<Mount> volumes;
    for (const MountEntry& entry : table(system)) {
        if (!isUserVolumePath(entry.mountPoint) || entry.pseudo)
            continue;
        // Of several mounts on one place only the last can be seen.
        std::erase_if(volumes, [&](const Mount& other) { return other.mountPoint == entry.mountPoint; });
        volumes.push_back(mountFrom(entry));
    }
    return volumes;
}

std::int64_t capacity(const std::string& path) try { return IO::capacity(path).total; } catch (const IOError&) {
    return 0;
}

std::optional<std::string> volumeUUID(const std::string& path, const System& system) {
    const auto identity = identityOf(path, system);
    return identity ? unlessEmpty(identity->uuid) : std::nullopt;
}

std::optional<std::string> label(const std::string& path, const System& system) {
    const auto identity = identityOf(path, system);
    return identity ? unlessEmpty(identity->label) : std::nullopt;
}

std::string fatName(const std::string& path, const System& system) {
    if (const auto identity = identityOf(path, system); identity && identity->version.starts_with("FAT"))
        return identity->version == "FAT32" ? "FAT32" : "FAT16";
    constexpr fsblkcnt_t leastOfFAT32 = 65525;
    struct statvfs info{};
    return ::statvfs(path.c_str(), &info) == 0 && info.f_blocks < leastOfFAT32 ? "FAT16" : "FAT32";
}

std::optional<Timestamp> created(const std::string& path, const System& system) {
    // The ext superblock starts at byte 1024: s_magic at 0x38, s_mkfs_time (seconds, little-endian) at 0x108.
    constexpr std::size_t superblock = 1024;
    constexpr std::size_t needed = superblock + 0x10C;
    const auto entry = entryOf(path, system);
    if (!entry || !entry->type.starts_with("ext"))
        return std::nullopt;
    const std::vector<std::byte> bytes = readFirstBytes(entry->device, needed);
    const auto at = [&](std::size_t offset) { return std::to_integer<std::uint32_t>(bytes[superblock + offset]); };
    if (bytes.size() < needed || at(0x38) != 0x53 || at(0x39) != 0xEF)
        return std::nullopt;
    const std::uint32_t seconds = at(0x108) | at(0x109) << 8 | at(0x10A) << 16 | at(0x10B) << 24;
    return seconds == 0 ? std::nullopt : std::optional(Timestamp{seconds, 0});
}

std::string nameOfVolumeAt(const std::string& path, const System& system) {
    const auto entry = entryOf(path, system);
    if (!entry || entry->mountPoint != realPath(path))
        return "";
    const std::string label = BlockDevice::identify(entry->device).label;
    return label.empty() ? entry->mountPoint.substr(entry->mountPoint.find_last_of('/') + 1) : label;
}

bool isInternal(const std::string& path, const System& system) {
    const auto entry = entryOf(path, system);
    if (!entry)
        return true;
    if (entry->network)
        return false;
    const std::vector<std::string> disks = disksOf(*entry, system);
    return disks.empty() || std::ranges::any_of(disks, [&](const std::string& disk) {
               return !BlockDevice::isPluggable(disk, system.sysfs);
           });
}

bool isSystemDisk(const std::string& path, const System& system) {
    const auto entry = entryOf(path, system);
    if (!entry)
        return false;
    const std::vector<std::string> disks = disksOf(*entry, system);
    for (const MountEntry& other : table(system)) {
        if (other.mountPoint != "/" && other.mountPoint != "/boot" && other.mountPoint != "/boot/efi" &&
            other.mountPoint != "/usr")
            continue;
        if (other.mountPoint == entry->mountPoint)
            return true;
        for (const std::string& disk : disksOf(other, system))
            if (std::ranges::find(disks, disk) != disks.end())
                return true;
    }
    return false;
}

std::vector<std::string> wholeDisks(const std::string& device, const System& system) {
    return BlockDevice::wholeDisks(device, 0, system.sysfs);
}

std::vector<std::byte> readFirstBytes(const std::string& device, std::size_t count) {
    const Descriptor fd(retryInterrupted([&] { return ::open(device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
    std::vector<std::byte> bytes(count);
    std::size_t got = 0;
    while (fd && got < count) {
        const ssize_t n = retryInterrupted(
            [&] { return ::pread(fd.get(), bytes.data() + got, count - got, static_cast<off_t>(got)); });
        if (n <= 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    bytes.resize(got);
    return bytes;
}

} // namespace velmora::VolumeFacts
