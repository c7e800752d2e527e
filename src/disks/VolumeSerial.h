#pragma once

#include "records/CardKey.h"

#include <optional>
#include <string>

namespace velmora {

// What tells one medium from another, on top of what the mount table says of it.
namespace VolumeFacts {

// The serial in the boot sector of a path's volume (FAT, exFAT, NTFS). Without rights on the raw device it is taken
// from the identifier that udev read there, so that a card has the same key for every user. None for other file
// systems, and where it is zero.
std::optional<std::uint32_t> bootSerial(const std::string& path);

// The serial in plain form ("1A2B3C4D"), else "uuid:" and the volume's UUID; none when the volume has neither.
std::optional<std::string> fsSerial(const std::string& path);
// The same as people write it: "1A2B-3C4D".
std::optional<std::string> volumeSerialText(const std::string& path);

// The serial in the identifier that udev gives a volume of this type (IO::filesystemType): "1A2B-3C4D" on FAT and
// exFAT, sixteen digits on NTFS, of which the lower half counts. None for any other type, whatever its identifier looks
// like: that of UDF has sixteen digits too, and none of them is a serial.
std::optional<std::uint32_t> serialFromUUID(const std::string& filesystemType, const std::string& uuid);

// "exFAT", "FAT32", "FAT16", "NTFS", else the mount's type. The same for every account, whether or not it may read the
// boot sector.
std::string filesystemName(const std::string& path);

} // namespace VolumeFacts

// The medium below a path; none when the path does not exist or the volume tells nothing that identifies it.
std::optional<CardVolume> cardVolumeOf(const std::string& path);

} // namespace velmora
