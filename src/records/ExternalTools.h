#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>

namespace velmora {

// Full paths of the outside programs; one that is absent is looked for.
struct ExternalTools {
    std::optional<std::string> ffmpeg;
    std::optional<std::string> ffprobe;
    std::optional<std::string> redline;
    std::optional<std::string> artCmd;
    std::optional<std::string> brawDecoder;
    bool operator==(const ExternalTools&) const = default;
};

void to_json(nlohmann::json& j, const ExternalTools& value);
void from_json(const nlohmann::json& j, ExternalTools& value);

} // namespace velmora
