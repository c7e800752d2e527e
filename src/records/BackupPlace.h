#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>

namespace velmora {

// A card folder that holds, or is to hold, a copy of a card.
struct BackupPlace {
    std::string cardPath;
    std::optional<std::string> volumeSerial; // of the disk it lay on when it was written
    bool operator==(const BackupPlace&) const = default;
};

void to_json(nlohmann::json& j, const BackupPlace& value);
void from_json(const nlohmann::json& j, BackupPlace& value);

} // namespace velmora
