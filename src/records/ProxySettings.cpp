#include "records/ProxySettings.h"

#include "base/JsonShape.h"
#include "records/Names.h"

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

namespace {

using namespace JsonShape;

constexpr std::tuple shape{
    field("enabled", &ProxySettings::enabled),
    field("height", &ProxySettings::height),
    named("codec", &ProxySettings::codec, proxyCodec),
    field("bitrateMbps", &ProxySettings::bitrateMbps),
    field("lutPath", &ProxySettings::lutPath),
    named("lutMode", &ProxySettings::lutMode, lutMode),
    field("lutBuiltin", &ProxySettings::lutBuiltin),
    field("lutFallback", &ProxySettings::lutFallback),
    field("burnFilename", &ProxySettings::burnFilename),
    field("burnTimecode", &ProxySettings::burnTimecode),
    field("audio", &ProxySettings::audio),
    field("skipCameraProxies", &ProxySettings::skipCameraProxies),
    field("skipLighterSources", &ProxySettings::skipLighterSources),
    field("copyToAllDestinations", &ProxySettings::copyToAllDestinations),
    field("extraFolder", &ProxySettings::extraFolder),
    field("frameAspect", &ProxySettings::frameAspect),
    field("frameScale", &ProxySettings::frameScale),
};

} // namespace

void to_json(nlohmann::json& j, const ProxySettings& value) { j = JsonShape::encoded(value, shape); }
void from_json(const nlohmann::json& j, ProxySettings& value) { value = JsonShape::decoded<ProxySettings>(j, shape); }

} // namespace velmora
