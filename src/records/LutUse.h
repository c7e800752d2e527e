#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>

namespace velmora {

// The LUT decision for one clip.
struct LutUse {
    std::string source; // "builtin", "custom", "fallback" or empty
    std::optional<std::string> id;
    std::string name;
    std::string reason;
    std::optional<std::string> file; // the path used; not stored

    static LutUse off(std::string reason) { return {{}, {}, "no LUT", std::move(reason), {}}; }
    bool operator==(const LutUse&) const = default;
};

void to_json(nlohmann::json& j, const LutUse& value);
void from_json(const nlohmann::json& j, LutUse& value);

} // namespace velmora
