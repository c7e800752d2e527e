#include "records/Clip.h"

#include "base/JsonFields.h"
#include "records/Names.h"

#include <nlohmann/json.hpp>

namespace velmora {

namespace {
constexpr std::array<std::string_view, 6> formatNames{"video", "braw", "r3d", "arriraw", "canonRaw", "unknown"};
constexpr std::array<std::string_view, 6> formatLabels{"Video",   "Blackmagic RAW", "RED R3D",
                                                       "ARRIRAW", "Canon RAW",      "?"};
} // namespace

std::string_view name(ClipFormat format) noexcept { return formatNames[static_cast<std::size_t>(format)]; }
std::string_view label(ClipFormat format) noexcept { return formatLabels[static_cast<std::size_t>(format)]; }
ClipFormat clipFormat(std::string_view name) noexcept {
    return caseNamed<ClipFormat>(name, formatNames).value_or(ClipFormat::unknown);
}

void to_json(nlohmann::json& j, const Clip& value) {
    j = {{"name", value.name},         {"path", value.path},   {"format", name(value.format)},
         {"segments", value.segments}, {"bytes", value.bytes}, {"isCameraProxy", value.isCameraProxy}};
}

void from_json(const nlohmann::json& j, Clip& value) {
    const JsonFields fields(j);
    value.name = fields.string("name");
    value.path = fields.string("path");
    value.format = clipFormat(fields.string("format", ""));
    value.segments = fields.optionalStrings("segments").value_or(std::vector<std::string>{});
    value.bytes = fields.integerOr("bytes", 0);
    value.isCameraProxy = fields.boolean("isCameraProxy", false);
}

} // namespace velmora
