#pragma once

#include <optional>
#include <string>

namespace velmora {

// Taking a volume out safely, as a desktop does it.
namespace Eject {

// Unmounts every volume of the disk that holds the device `device` ("/dev/sdb1") and ejects the disk. Nothing is
// forced: a file still in use anywhere on it refuses. A disk without a removable medium is powered off instead, if that
// takes no other disk with it. Waits until the system has written everything out. Returns nothing when it is done, else
// the system's own words for what went wrong.
std::optional<std::string> disk(const std::string& device);

} // namespace Eject

} // namespace velmora
