#pragma once

#include <nlohmann/json_fwd.hpp>

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace velmora {

// Identity of a medium, whatever it is called: two cards with one serial and different capacities are two cards.
struct CardKey {
    std::string fsSerial;
    std::int64_t capacity = 0; // bytes
    auto operator<=>(const CardKey&) const = default;
};

void to_json(nlohmann::json& j, const CardKey& value);
void from_json(const nlohmann::json& j, CardKey& value);

// The volume that a card is.
struct CardVolume {
    std::optional<std::string> identity;
    std::string fsSerial;
    std::int64_t capacity = 0;
    std::optional<std::string> label;
    std::string filesystem;

    CardKey key() const { return {fsSerial, capacity}; }
    bool operator==(const CardVolume&) const = default;
};

} // namespace velmora

template <>
struct std::hash<velmora::CardKey> {
    std::size_t operator()(const velmora::CardKey& key) const noexcept {
        return std::hash<std::string>{}(key.fsSerial) ^
               (std::hash<std::int64_t>{}(key.capacity) * std::size_t{0x9e3779b97f4a7c15});
    }
};
