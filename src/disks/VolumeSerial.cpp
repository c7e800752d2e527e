#include "disks/VolumeSerial.h"

#include "base/Text.h"
#include "disks/BootSector.h"
#include "disks/CardIdentity.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <charconv>

namespace velmora {

namespace VolumeFacts {

namespace {

std::optional<BootSector::Serial> fromDevice(const std::string& path) {
    const auto mounted = mount(path);
    if (!mounted || !mounted->local || !mounted->device.starts_with("/dev/"))
        return std::nullopt;
    const auto sector = BootSector::read(mounted->device);
    return sector ? BootSector::serial(*sector) : std::nullopt;
}

// udev names these volumes by the serial itself: "1A2B-3C4D" on FAT and exFAT, sixteen digits on NTFS.
std::optional<std::uint32_t> fromUUID(const std::string& uuid) {
    if (const auto serial = BootSector::parse(uuid))
        return serial;
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(uuid.data(), uuid.data() + uuid.size(), value, 16);
    if (uuid.size() != 16 || error != std::errc() || end != uuid.data() + uuid.size())
        return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

} // namespace

std::optional<std::uint32_t> bootSerial(const std::string& path) {
    if (const auto serial = fromDevice(path))
        return serial->value;
    const auto uuid = volumeUUID(path);
    return uuid ? fromUUID(*uuid) : std::nullopt;
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
    if (const auto serial = fromDevice(path))
        return serial->filesystem;
    return IO::filesystemType(path);
}

std::string folderKey(const std::string& path) { return pathKey(realPath(path)); }

} // namespace VolumeFacts

std::optional<CardVolume> cardVolumeOf(const std::string& path) {
    if (!IO::exists(path))
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
