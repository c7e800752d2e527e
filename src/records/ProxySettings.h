#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

enum class ProxyCodec { h264, hevc, proresProxy, proresLT, prores422, prores422HQ };
std::string_view name(ProxyCodec codec) noexcept;
std::optional<ProxyCodec> proxyCodec(std::string_view name) noexcept;
const std::vector<ProxyCodec>& allProxyCodecs();

// How the LUT of a proxy is chosen. (Stored as "auto", "builtin", "custom", "off".)
enum class LutMode { automatic, builtin, custom, off };
std::string_view name(LutMode mode) noexcept;
std::optional<LutMode> lutMode(std::string_view name) noexcept;
const std::vector<LutMode>& allLutModes();

// What the user chose for proxies. In JSON a missing key means the default.
struct ProxySettings {
    bool enabled = false;
    std::int64_t height = 1080; // lines
    ProxyCodec codec = ProxyCodec::h264;
    std::int64_t bitrateMbps = 10; // h264 and hevc only
    std::optional<std::string> lutPath;
    std::optional<LutMode> lutMode;
    std::optional<std::string> lutBuiltin;
    std::optional<std::string> lutFallback;
    bool burnFilename = true;
    bool burnTimecode = true;
    bool audio = true;
    bool skipCameraProxies = true;
    bool skipLighterSources = true;
    bool copyToAllDestinations = true;
    std::optional<std::string> extraFolder;
    std::optional<double> frameAspect; // frame lines: width over height
    double frameScale = 1.0;           // part of the picture inside the frame lines
    bool operator==(const ProxySettings&) const = default;
};

void to_json(nlohmann::json& j, const ProxySettings& value);
void from_json(const nlohmann::json& j, ProxySettings& value);

} // namespace velmora
