#include "disks/BootSector.h"

#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <cstring>

namespace velmora::BootSector {

namespace {

constexpr std::size_t sectorBytes = 512;
constexpr std::size_t neededBytes = 112;
// An extended boot signature of 0x29 says that a serial number follows.
constexpr std::byte extendedSignature{0x29};

std::uint32_t littleEndian(std::span<const std::byte> bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= std::to_integer<std::uint32_t>(bytes[at + i]) << (8 * i);
    return value;
}

} // namespace

std::optional<std::vector<std::byte>> read(const std::string& device) {
    std::vector<std::byte> sector = VolumeFacts::readFirstBytes(device, sectorBytes);
    if (sector.size() < sectorBytes)
        return std::nullopt;
    return sector;
}

std::optional<Serial> serial(std::span<const std::byte> sector) {
    if (sector.size() < neededBytes)
        return std::nullopt;
    const auto named = [&](const char* name) { return std::memcmp(sector.data() + 3, name, 8) == 0; };
    if (named("EXFAT   "))
        return Serial{"exFAT", littleEndian(sector, 100)};
    if (named("NTFS    "))
        return Serial{"NTFS", littleEndian(sector, 72)};
    if (sector[66] == extendedSignature)
        return Serial{"FAT32", littleEndian(sector, 67)};
    if (sector[38] == extendedSignature)
        return Serial{"FAT16", littleEndian(sector, 39)};
    return std::nullopt;
}

std::string text(std::uint32_t serial) { return fmt::format("{:04X}-{:04X}", serial >> 16, serial & 0xFFFF); }

std::optional<std::uint32_t> parse(const std::string& text) {
    if (text.size() != 9 || text[4] != '-')
        return std::nullopt;
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i == 4)
            continue;
        const char c = text[i];
        std::uint32_t digit = 0;
        if (c >= '0' && c <= '9')
            digit = static_cast<std::uint32_t>(c - '0');
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<std::uint32_t>(c - 'A' + 10);
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<std::uint32_t>(c - 'a' + 10);
        else
            return std::nullopt;
        value = value << 4 | digit;
    }
    return value;
}

} // namespace velmora::BootSector
