#include "records/ClipEntry.h"

#include "base/JsonShape.h"
#include "records/Names.h"

namespace velmora {

using nlohmann::json;

namespace {

constexpr std::array<std::string_view, 5> statusNames{"none", "skipped", "unsupported", "done", "failed"};

using namespace JsonShape;

constexpr std::tuple contentShape{
    required("state", &ClipContent::state),
    field("kind", &ClipContent::kind),
    field("frame", &ClipContent::frame),
    field("timecode", &ClipContent::timecode),
    field("message", &ClipContent::message),
    field("framesDecoded", &ClipContent::framesDecoded),
    field("framesExpected", &ClipContent::framesExpected),
};

constexpr std::tuple lutShape{
    field("source", &LutUse::source),
    field("id", &LutUse::id),
    field("name", &LutUse::name),
    field("reason", &LutUse::reason),
};

constexpr std::tuple entryShape{
    required("clip", &ClipEntry::clip),
    field("info", &ClipEntry::info),
    field("probeError", &ClipEntry::probeError),
    named("proxyStatus", &ClipEntry::proxyStatus, proxyStatus),
    field("proxyPath", &ClipEntry::proxyPath),
    field("proxyNote", &ClipEntry::proxyNote),
    field("proxySeconds", &ClipEntry::proxySeconds),
    field("lut", &ClipEntry::lut),
    field("content", &ClipEntry::content),
};

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

void to_json(json& j, const ClipContent& value) { j = JsonShape::encoded(value, contentShape); }
void from_json(const json& j, ClipContent& value) { value = JsonShape::decoded<ClipContent>(j, contentShape); }

void to_json(json& j, const LutUse& value) { j = JsonShape::encoded(value, lutShape); }
void from_json(const json& j, LutUse& value) { value = JsonShape::decoded<LutUse>(j, lutShape); }

void to_json(json& j, const ClipEntry& value) { j = JsonShape::encoded(value, entryShape); }
void from_json(const json& j, ClipEntry& value) { value = JsonShape::decoded<ClipEntry>(j, entryShape); }

} // namespace velmora
