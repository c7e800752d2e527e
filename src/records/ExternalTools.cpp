#include "records/ExternalTools.h"

#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

namespace velmora {

void to_json(nlohmann::json& j, const ExternalTools& value) {
    j = nlohmann::json::object();
    Json::put(j, "ffmpeg", value.ffmpeg);
    Json::put(j, "ffprobe", value.ffprobe);
    Json::put(j, "redline", value.redline);
    Json::put(j, "artCmd", value.artCmd);
    Json::put(j, "brawDecoder", value.brawDecoder);
}

void from_json(const nlohmann::json& j, ExternalTools& value) {
    const JsonFields fields(j);
    value.ffmpeg = fields.optionalString("ffmpeg");
    value.ffprobe = fields.optionalString("ffprobe");
    value.redline = fields.optionalString("redline");
    value.artCmd = fields.optionalString("artCmd");
    value.brawDecoder = fields.optionalString("brawDecoder");
}

} // namespace velmora
