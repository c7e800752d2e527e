#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace velmora {

// Whether a clip's picture and sound decoded cleanly, and where the first defect lies.
struct ClipContent {
    std::string state;
    std::optional<std::string> kind;
    std::optional<std::int64_t> frame;
    std::optional<std::string> timecode;
    std::optional<std::string> message;
    std::optional<std::int64_t> framesDecoded;
    std::optional<std::int64_t> framesExpected;
    std::optional<std::string> jpeg; // a picture of the defect; not stored

    std::string kindText() const;
    bool operator==(const ClipContent&) const = default;
};

void to_json(nlohmann::json& j, const ClipContent& value);
void from_json(const nlohmann::json& j, ClipContent& value);

} // namespace velmora
