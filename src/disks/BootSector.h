#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velmora {

// The volume serial number that every FAT, exFAT and NTFS volume gets when it is formatted: the one mark of a card that
// survives renaming and tells two formattings of the same card apart. Offsets: Microsoft's papers on FAT
// (BS_VolID) and exFAT (VolumeSerialNumber), NTFS boot sector at 0x48.
namespace BootSector {

struct Serial {
    std::string filesystem;  // "exFAT", "NTFS", "FAT32", "FAT16"
    std::uint32_t value = 0; // of NTFS's 64 bits the lower half, which is what Windows shows

    bool operator==(const Serial&) const = default;
};

// The first 512 bytes of a block device or an image, opened for reading only; nothing when fewer can be read, which is
// what a user without rights on the raw device gets.
std::optional<std::vector<std::byte>> read(const std::string& device);

// Needs 112 bytes; nothing for any other file system.
std::optional<Serial> serial(std::span<const std::byte> sector);

// "1A2B-3C4D"
std::string text(std::uint32_t serial);

// The reverse; nothing for any other form.
std::optional<std::uint32_t> parse(const std::string& text);

} // namespace BootSector

} // namespace velmora
