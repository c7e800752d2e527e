#pragma once

#include "base/JsonFields.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace velmora::fuzz {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// What was read and written once must read and write the same for ever: otherwise each run would change a record that
// it only wanted to keep.
template <typename Record>
void writesStably(std::string_view text) {
    std::string once;
    try {
        const auto record = Json::parse(text).get<Record>();
        once = Json::compact(nlohmann::json(record));
    } catch (const FormatError&) {
        return;
    }
    // From here on the text is this program's own: failing to read it is a fault.
    const auto again = Json::parse(once).get<Record>();
    if (Json::compact(nlohmann::json(again)) != once)
        std::abort();
}

} // namespace velmora::fuzz
