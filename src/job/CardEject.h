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

} // namespace CardEject

} // namespace velmora
