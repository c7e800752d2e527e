#include "records/ExternalTools.h"

#include "base/JsonShape.h"

namespace velmora {

namespace {

using namespace JsonShape;

constexpr std::tuple shape{
    field("ffmpeg", &ExternalTools::ffmpeg),           field("ffprobe", &ExternalTools::ffprobe),
    field("redline", &ExternalTools::redline),         field("artCmd", &ExternalTools::artCmd),
    field("brawDecoder", &ExternalTools::brawDecoder),
};

} // namespace

void to_json(nlohmann::json& j, const ExternalTools& value) { j = JsonShape::encoded(value, shape); }
void from_json(const nlohmann::json& j, ExternalTools& value) { value = JsonShape::decoded<ExternalTools>(j, shape); }

} // namespace velmora
