#pragma once

#include "records/AppSettings.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// One key of the settings document: how it is read, written and typed in. The whole of what the settings hold stands
// in one table of these, so that the document, the command line and the checks cannot drift apart.
struct SettingsField {
    enum class Kind { boolean, integer, number, text, path, texts, paths, map };

    std::string section; // empty for a key of the outermost object
    std::string key;
    Kind kind = Kind::text;
    bool optional = false;                                        // may be absent
    std::vector<std::string> choices;                             // of a text or an integer; empty: any
    double min = 0, max = 0;                                      // of a number without choices
    std::string note;                                             // what a person should know of it; mostly empty
    std::function<nlohmann::json(const AppSettings&)> get;        // null when absent
    std::function<void(AppSettings&, const nlohmann::json&)> set; // throws FormatError; null makes it absent

    std::string path() const { return section.empty() ? key : section + "." + key; }
    // What a value may be, for people.
    std::string allowed() const;
    // Throws FormatError when a value has the wrong type or is none of the choices. Bounds of numbers are not looked
    // at: normalizing brings those in.
    void checkType(const nlohmann::json& value) const;
};

namespace SettingsFields {

// In the order of the record.
const std::vector<SettingsField>& all();
const SettingsField* find(std::string_view path);

inline const std::vector<std::string> hashes{"xxh64", "both"};
inline const std::vector<std::string> primaries{"fastest", "first"};
inline const std::vector<std::string> appearances{"dark", "light", "system"};

constexpr std::int64_t minBitrate = 1, maxBitrate = 400;          // Mbit/s
constexpr double minScale = 0.1, minAspect = 0.2, maxAspect = 10; // of frame lines; the scale ends at 1

} // namespace SettingsFields

} // namespace velmora
