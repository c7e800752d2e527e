#include "disks/VolumeSerial.h"

#include "disks/BootSector.h"
#include "disks/CardIdentity.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <charconv>

namespace velmora {

namespace VolumeFacts {

namespace {

bool isFATFamily(const std::string& type) { return type == "msdos" || type == "exfat"; }

// Other file systems leave these bytes to whoever formatted the medium before. What udev could not name may be any.
bool hasBootSerial(const std::string& type) { return isFATFamily(type) || type == "ntfs" || type == "fuseblk"; }

std::optional<BootSector::Serial> fromDevice(const std::string& path, const std::string& type) {
    const auto mounted = mount(path);
    if (!hasBootSerial(type) || !mounted || !mounted->local || !mounted->device.starts_with("/dev/"))
        return std::nullopt;
    const auto sector = BootSector::read(mounted->device);
    return sector ? BootSector::serial(*sector) : std::nullopt;
}

// Some devices format without a serial. Zero tells no medium from another.
std::optional<std::uint32_t> known(std::optional<std::uint32_t> serial) { return serial == 0U ? std::nullopt : serial; }

} // namespace

std::optional<std::uint32_t> serialFromUUID(const std::string& filesystemType, const std::string& uuid) {
    if (isFATFamily(filesystemType))
        return known(BootSector::parse(uuid));
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(uuid.data(), uuid.data() + uuid.size(), value, 16);
    if (filesystemType != "ntfs" || uuid.size() != 16 || error != std::errc() || end != uuid.data() + uuid.size())
        return std::nullopt;
    return known(static_cast<std::uint32_t>(value));
}

std::optional<std::uint32_t> bootSerial(const std::string& path) {
    const std::string type = IO::filesystemType(path);
    if (const auto serial = fromDevice(path, type))
        return known(serial->value);
    const auto uuid = volumeUUID(path);
    return uuid ? serialFromUUID(type, *uuid) : std::nullopt;
}

std::optional<std::string> fsSerial(const std::string& path) {
    if (const auto serial = bootSerial(path))
        return fmt::format("{:08X}", *serial);
    const auto uuid = volumeUUID(path);
    return uuid && !uuid->empty() ? std::optional("uuid:" + *uuid) : std::nullopt;
}

std::optional<std::string> volumeSerialText(const std::string& path) {
    if (const auto serial = bootSerial(path))
        return BootSector::text(*serial);
    const auto uuid = volumeUUID(path);
    return uuid && !uuid->empty() ? std::optional("uuid:" + *uuid) : std::nullopt;
}

std::string filesystemName(const std::string& path) {
    const std::string type = IO::filesystemType(path);
    if (const auto serial = fromDevice(path, type))
        return serial->filesystem;
    if (type == "msdos")
        return fatName(path);
    return type == "exfat" ? "exFAT" : type == "ntfs" ? "NTFS" : type;
}

} // namespace VolumeFacts

std::optional<CardVolume> cardVolumeOf(const std::string& path) {
    if (IO::isGone(path))
        return std::nullopt;
    const auto serial = VolumeFacts::fsSerial(path);
    if (!serial)
        return std::nullopt;
    CardVolume volume;
    volume.identity = CardIdentity::of(path);
    volume.fsSerial = *serial;
    volume.capacity = VolumeFacts::capacity(path);
    volume.label = VolumeFacts::label(path);
    // The kernel's name, by which records tell FAT from the others; the name for people is `filesystemName`.
    volume.filesystem = IO::filesystemType(path);
    return volume;
}

} // namespace velmora
