#pragma once

#include <optional>
#include <string>

namespace velmora {

// Ejecting the card that was copied, and why some sources are never ejected.
namespace CardEject {

struct Facts {
    bool exists = false;
    bool isVolumeRoot = false;
    bool isLocal = true;
    bool isInternal = false;
    bool isSystem = false;
};

// Why a source cannot be ejected; none when it can.
std::optional<std::string> problem(const Facts& facts);
std::optional<std::string> problem(const std::string& source);

// Unmounts every volume of the source's disk, without force, and ejects it. Returns why that did not work, or why it
// is not tried at all; none when the card may be pulled. Waits until everything is written out: not for a thread that
// shows anything.
std::optional<std::string> eject(const std::string& source);

} // namespace CardEject

} // namespace velmora
