#include "records/Clip.h"

#include "base/JsonShape.h"
#include "records/Names.h"

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

namespace {

using namespace JsonShape;

constexpr std::tuple shape{
    required("name", &Clip::name),      required("path", &Clip::path), named("format", &Clip::format, clipFormat),
    field("segments", &Clip::segments), field("bytes", &Clip::bytes),  field("isCameraProxy", &Clip::isCameraProxy),
};

} // namespace

void to_json(nlohmann::json& j, const Clip& value) { j = JsonShape::encoded(value, shape); }
void from_json(const nlohmann::json& j, Clip& value) { value = JsonShape::decoded<Clip>(j, shape); }

} // namespace velmora
