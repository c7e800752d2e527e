#include "proxies/LutResolver.h"

#include "base/Text.h"
#include "clips/SonyXML.h"
#include "proxies/ArriColorSpace.h"
#include "proxies/LutOption.h"

#include <fmt/format.h>

namespace velmora::LutResolver {

namespace {

constexpr const char* customName = "custom LUT";

LutUse builtin(const std::optional<std::string>& id, std::string reason, const LutCatalog& catalog) {
    if (const BuiltinLut* lut = id ? catalog.find(*id) : nullptr)
        return {"builtin", lut->id, lut->name, std::move(reason), lut->path};
    return LutUse::off("built-in LUT not found");
}

LutUse custom(const ProxySettings& settings) {
    if (settings.lutPath.value_or("").empty())
        return LutUse::off("no custom LUT selected");
    return {"custom", {}, customName, "selected in settings", settings.lutPath};
}

LutUse automatic(const Detected& detected, const ProxySettings& settings, const LutCatalog& catalog) {
    if (detected.id)
        return builtin(detected.id, detected.reason, catalog);
    const std::string fallback = settings.lutFallback.value_or("");
    const std::string reason = "camera not recognised — fallback LUT";
    if (const BuiltinLut* lut = catalog.find(fallback))
        return {"fallback", lut->id, lut->name, reason, lut->path};
    if (LutOption::isCubePath(fallback))
        return {"fallback", {}, customName, reason, fallback};
    return LutUse::off(detected.reason);
}

Detected sony(const SonyXML::Picture& picture) {
    const std::string gamma = toLower(*picture.gamma), gamut = toLower(picture.gamut.value_or(""));
    const std::string stated = "Sony XML: " + *picture.gamma;
    if (gamma.starts_with("s-log3"))
        return {gamut.ends_with("cine") ? "sony-slog3-sgamut3cine" : "sony-slog3-sgamut3",
                stated + (gamut.empty() ? "" : " / " + *picture.gamut)};
    return {std::nullopt, stated + (gamma.starts_with("s-log") ? " (no built-in LUT)" : " (not log)")};
}

Detected video(const std::optional<ClipInfo>& info, const std::string& clipPath) {
    if (const SonyXML::Picture picture = SonyXML::read(clipPath); picture.gamma && !picture.gamma->empty())
        return sony(picture);
    const std::string camera = info ? toUpper(info->camera.value_or("")) : "";
    if (camera.find("ALEXA") == std::string::npos && camera.find("AMIRA") == std::string::npos)
        return {std::nullopt, "camera not recognised"};
    if (ArriColorSpace::isAlexa35(camera))
        return {"arri-logc4-awg4", "ARRI camera (assuming LogC4)"};
    return {"arri-logc3-awg3", "ARRI camera (assuming LogC3)"};
}

} // namespace

LutMode effectiveMode(const ProxySettings& settings) {
    return settings.lutMode.value_or(settings.lutPath.value_or("").empty() ? LutMode::automatic : LutMode::custom);
}

Detected braw(const std::optional<ClipInfo>& info) {
    const std::string gamma = info ? info->gamma.value_or("") : "";
    if (gamma.empty())
        return {"bmd-film-gen5", "Blackmagic RAW (gamma not stated — assuming Film Gen 5)"};
    const auto generation = info->colorScienceGen;
    const std::string text = "Blackmagic RAW: " + (generation ? fmt::format("{} Gen {}", gamma, *generation) : gamma);
    if (!equalIgnoringCase(gamma, "Blackmagic Design Film"))
        return {std::nullopt, text + " (not log)"};
    if (generation.value_or(5) == 5)
        return {"bmd-film-gen5", text};
    return {std::nullopt, text + " (no built-in LUT)"};
}

Detected detect(const Clip& clip, const std::optional<ClipInfo>& info, const std::string& clipPath) {
    switch (clip.format) {
    case ClipFormat::arriraw:
        if (ArriColorSpace::of(info.value_or(ClipInfo())).find("LogC4") != std::string::npos)
            return {"arri-logc4-awg4", "ARRIRAW (LogC4)"};
        return {"arri-logc3-awg3", "ARRIRAW (LogC3)"};
    case ClipFormat::r3d:
        return {"red-log3g10-rwg", "RED R3D (IPP2 Log3G10)"};
    case ClipFormat::braw:
        return braw(info);
    case ClipFormat::video:
    case ClipFormat::canonRaw:
    case ClipFormat::unknown:
        break;
    }
    return video(info, clipPath);
}

LutUse resolve(const Clip& clip, const std::optional<ClipInfo>& info, const std::string& clipPath,
               const ProxySettings& settings, const LutCatalog& catalog) {
    switch (effectiveMode(settings)) {
    case LutMode::off:
        return LutUse::off("off in settings");
    case LutMode::builtin:
        return builtin(settings.lutBuiltin, "selected in settings", catalog);
    case LutMode::custom:
        return custom(settings);
    case LutMode::automatic:
        break;
    }
    if (catalog.luts.empty())
        return LutUse::off("built-in LUTs missing");
    return automatic(detect(clip, info, clipPath), settings, catalog);
}

} // namespace velmora::LutResolver
