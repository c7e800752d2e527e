#include "records/ProxySettings.h"

#include "base/JsonFields.h"
#include "records/Names.h"

#include <nlohmann/json.hpp>

namespace velmora {

namespace {

constexpr std::array<std::string_view, 6> codecNames{"h264",     "hevc",      "proresProxy",
                                                     "proresLT", "prores422", "prores422HQ"};
constexpr std::array<std::string_view, 4> modeNames{"auto", "builtin", "custom", "off"};

} // namespace

std::string_view name(ProxyCodec codec) noexcept { return codecNames[static_cast<std::size_t>(codec)]; }
std::optional<ProxyCodec> proxyCodec(std::string_view name) noexcept { return caseNamed<ProxyCodec>(name, codecNames); }
const std::vector<ProxyCodec>& allProxyCodecs() {
    using enum ProxyCodec;
    static const std::vector<ProxyCodec> all{h264, hevc, proresProxy, proresLT, prores422, prores422HQ};
    return all;
}

std::string_view name(LutMode mode) noexcept { return modeNames[static_cast<std::size_t>(mode)]; }
std::optional<LutMode> lutMode(std::string_view name) noexcept { return caseNamed<LutMode>(name, modeNames); }
const std::vector<LutMode>& allLutModes() {
    static const std::vector<LutMode> all{LutMode::automatic, LutMode::builtin, LutMode::custom, LutMode::off};
    return all;
}

void to_json(nlohmann::json& j, const ProxySettings& value) {
    j = {{"enabled", value.enabled},
         {"height", value.height},
         {"codec", name(value.codec)},
         {"bitrateMbps", value.bitrateMbps},
         {"burnFilename", value.burnFilename},
         {"burnTimecode", value.burnTimecode},
         {"audio", value.audio},
         {"skipCameraProxies", value.skipCameraProxies},
         {"skipLighterSources", value.skipLighterSources},
         {"copyToAllDestinations", value.copyToAllDestinations},
         {"frameScale", value.frameScale}};
    Json::put(j, "lutPath", value.lutPath);
    if (value.lutMode)
        j["lutMode"] = name(*value.lutMode);
    Json::put(j, "lutBuiltin", value.lutBuiltin);
    Json::put(j, "lutFallback", value.lutFallback);
    Json::put(j, "extraFolder", value.extraFolder);
    Json::put(j, "frameAspect", value.frameAspect);
}

void from_json(const nlohmann::json& j, ProxySettings& value) {
    const JsonFields fields(j);
    const ProxySettings missing;
    value.enabled = fields.boolean("enabled", missing.enabled);
    value.height = fields.integerOr("height", missing.height);
    const auto codec = fields.optionalString("codec");
    value.codec = codec ? proxyCodec(*codec).value_or(missing.codec) : missing.codec;
    if (codec && !proxyCodec(*codec))
        fields.wrong("codec", "a known codec");
    value.bitrateMbps = fields.integerOr("bitrateMbps", missing.bitrateMbps);
    value.lutPath = fields.optionalString("lutPath");
    const auto mode = fields.optionalString("lutMode");
    value.lutMode = mode ? lutMode(*mode) : std::nullopt;
    if (mode && !value.lutMode)
        fields.wrong("lutMode", "a known LUT mode");
    value.lutBuiltin = fields.optionalString("lutBuiltin");
    value.lutFallback = fields.optionalString("lutFallback");
    value.burnFilename = fields.boolean("burnFilename", missing.burnFilename);
    value.burnTimecode = fields.boolean("burnTimecode", missing.burnTimecode);
    value.audio = fields.boolean("audio", missing.audio);
    value.skipCameraProxies = fields.boolean("skipCameraProxies", missing.skipCameraProxies);
    value.skipLighterSources = fields.boolean("skipLighterSources", missing.skipLighterSources);
    value.copyToAllDestinations = fields.boolean("copyToAllDestinations", missing.copyToAllDestinations);
    value.extraFolder = fields.optionalString("extraFolder");
    value.frameAspect = fields.optionalNumber("frameAspect");
    value.frameScale = fields.number("frameScale", missing.frameScale);
}

} // namespace velmora
