#include "records/ClipEntry.h"

#include "base/JsonFields.h"
#include "records/Names.h"

#include <nlohmann/json.hpp>

namespace velmora {

using nlohmann::json;

namespace {

constexpr std::array<std::string_view, 5> statusNames{"none", "skipped", "unsupported", "done", "failed"};

template <class T>
std::optional<T> optionalRecord(const JsonFields& fields, const char* key) {
    const json* value = fields.find(key);
    return value ? std::optional(value->get<T>()) : std::nullopt;
}

template <class T>
void putRecord(json& j, const char* key, const std::optional<T>& value) {
    if (value)
        j[key] = *value;
}

} // namespace

std::string_view name(ProxyStatus status) noexcept { return statusNames[static_cast<std::size_t>(status)]; }
ProxyStatus proxyStatus(std::string_view name) noexcept {
    return caseNamed<ProxyStatus>(name, statusNames).value_or(ProxyStatus::none);
}

std::string ClipContent::kindText() const {
    if (kind == "decode")
        return "corrupted data";
    if (kind == "audio")
        return "corrupted audio";
    if (kind == "timestamps")
        return "bad timestamps";
    if (kind == "frames")
        return "clip ends early";
    return "content defect";
}

void to_json(json& j, const ClipContent& value) {
    j = {{"state", value.state}};
    Json::put(j, "kind", value.kind);
    Json::put(j, "frame", value.frame);
    Json::put(j, "timecode", value.timecode);
    Json::put(j, "message", value.message);
    Json::put(j, "framesDecoded", value.framesDecoded);
    Json::put(j, "framesExpected", value.framesExpected);
}

void from_json(const json& j, ClipContent& value) {
    const JsonFields fields(j);
    value.state = fields.string("state");
    value.kind = fields.optionalString("kind");
    value.frame = fields.optionalInteger("frame");
    value.timecode = fields.optionalString("timecode");
    value.message = fields.optionalString("message");
    value.framesDecoded = fields.optionalInteger("framesDecoded");
    value.framesExpected = fields.optionalInteger("framesExpected");
    value.jpeg.reset();
}

void to_json(json& j, const LutUse& value) {
    j = {{"source", value.source}, {"name", value.name}, {"reason", value.reason}};
    Json::put(j, "id", value.id);
}

void from_json(const json& j, LutUse& value) {
    const JsonFields fields(j);
    value.source = fields.string("source", "");
    value.id = fields.optionalString("id");
    value.name = fields.string("name", "");
    value.reason = fields.string("reason", "");
    value.file.reset();
}

void to_json(json& j, const ClipEntry& value) {
    j = {{"clip", value.clip}, {"proxyStatus", name(value.proxyStatus)}};
    putRecord(j, "info", value.info);
    Json::put(j, "probeError", value.probeError);
    Json::put(j, "proxyPath", value.proxyPath);
    Json::put(j, "proxyNote", value.proxyNote);
    Json::put(j, "proxySeconds", value.proxySeconds);
    putRecord(j, "lut", value.lut);
    putRecord(j, "content", value.content);
}

void from_json(const json& j, ClipEntry& value) {
    const JsonFields fields(j);
    value.clip = fields.at("clip").get<Clip>();
    value.info = optionalRecord<ClipInfo>(fields, "info");
    value.probeError = fields.optionalString("probeError");
    value.proxyStatus = proxyStatus(fields.string("proxyStatus", "none"));
    value.proxyPath = fields.optionalString("proxyPath");
    value.proxyNote = fields.optionalString("proxyNote");
    value.proxySeconds = fields.optionalNumber("proxySeconds");
    value.thumbnails.clear();
    value.lut = optionalRecord<LutUse>(fields, "lut");
    value.content = optionalRecord<ClipContent>(fields, "content");
}

} // namespace velmora
