#include "proxies/CameraHints.h"

#include "base/Text.h"
#include "proxies/LutResolver.h"

#include <algorithm>
#include <array>

namespace velmora {

namespace {

constexpr std::array<std::string_view, 11> makers{
    "ARRI",  "Blackmagic Design", "Blackmagic", "Canon", "DJI",  "FUJIFILM",
    "Nikon", "Panasonic",         "RED",        "SONY",  "Apple"};

// LUTs and curves that have a short name of their own.
constexpr std::array<std::array<std::string_view, 2>, 9> shortNames{{{"arri-logc4-awg4", "ARRI LogC4"},
                                                                     {"arri-logc3-awg3", "ARRI LogC3"},
                                                                     {"red-log3g10-rwg", "Log3G10"},
                                                                     {"bmd-film-gen5", "Film Gen 5"},
                                                                     {"sony-slog3-sgamut3", "S-Log3"},
                                                                     {"sony-slog3-sgamut3cine", "S-Log3"},
                                                                     {"logc4", "ARRI LogC4"},
                                                                     {"logc3", "ARRI LogC3"},
                                                                     {"canon log", "C-Log"}}};

// The curve, in the clip's own words.
std::string stated(const std::optional<ClipInfo>& info) {
    if (!info)
        return {};
    const std::string curve = info->logEncoding.value_or(info->gamma.value_or(""));
    if (info->colorScienceGen && equalIgnoringCase(curve, "Blackmagic Design Film"))
        return "Blackmagic Film Generation " + std::to_string(*info->colorScienceGen);
    return curve;
}

} // namespace

std::string CameraLabel::model(std::string_view camera) {
    const std::string whole = trim(camera);
    for (const std::string_view maker : makers)
        if (whole.size() > maker.size() + 1 && whole[maker.size()] == ' ' &&
            equalIgnoringCase(std::string_view(whole).substr(0, maker.size()), maker))
            return trim(std::string_view(whole).substr(maker.size()));
    return whole;
}

std::string CameraLabel::shortCurve(std::string_view look) {
    constexpr std::string_view film = "blackmagic film generation ";
    const std::string whole = trim(look), lower = toLower(whole);
    if (lower.starts_with(film))
        return "Film Gen " + whole.substr(film.size());
    if (lower.find("c-log") != std::string::npos || lower.find("clog") != std::string::npos)
        return "C-Log";
    const auto known = std::ranges::find_if(shortNames, [&](const auto& pair) { return lower.starts_with(pair[0]); });
    return known == shortNames.end() ? whole : std::string((*known)[1]);
}

std::string CameraLabel::text() const {
    std::vector<std::string> parts;
    if (camera)
        parts.push_back(model(*camera));
    if (curve)
        parts.push_back(*curve);
    return join(parts, " · ");
}

CameraLabel CameraHints::probe(const std::vector<Clip>& clips, const std::string& cardPath,
                               const ProxySettings& settings, const LutCatalog& catalog, const ProbeClip& probeClip) {
    auto clip = std::ranges::find(clips, false, &Clip::isCameraProxy);
    if (clip == clips.end())
        clip = clips.begin();
    if (clip == clips.end())
        return {};
    const std::optional<ClipInfo> info = probeClip(*clip);
    const LutUse look = LutResolver::resolve(*clip, info, cardPath + "/" + clip->path, settings, catalog);
    CameraLabel label;
    if (info)
        label.camera = info->camera;
    if (const std::string curve = look.id && look.source != "fallback" ? *look.id : stated(info); !trim(curve).empty())
        label.curve = CameraLabel::shortCurve(curve);
    return label;
}

} // namespace velmora
