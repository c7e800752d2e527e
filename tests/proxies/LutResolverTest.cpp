#include "proxies/LutResolver.h"
#include "proxies/ArriColorSpace.h"
#include "proxies/CameraHints.h"

namespace velmora {
namespace {

using test::TempFolder;

LutCatalog catalogOf(const std::vector<std::string>& ids) {
    LutCatalog catalog;
    for (const std::string& id : ids)
        catalog.luts.push_back({id, "Name of " + id, "", "", "", "", "/luts/" + id});
    return catalog;
}

const LutCatalog whole = catalogOf({"arri-logc4-awg4", "arri-logc3-awg3", "red-log3g10-rwg", "bmd-film-gen5",
                                    "sony-slog3-sgamut3", "sony-slog3-sgamut3cine"});

Clip clipOf(ClipFormat format) {
    Clip clip;
    clip.path = "C0001.MXF";
    clip.format = format;
    return clip;
}

ClipInfo shotWith(const std::string& camera) {
    ClipInfo info;
    info.camera = camera;
    return info;
}

ClipInfo brawOf(const std::string& gamma, std::optional<std::int64_t> generation) {
    ClipInfo info;
    info.gamma = gamma;
    info.colorScienceGen = generation;
    return info;
}

ClipInfo curveOf(const std::string& curve, const std::string& camera) {
    ClipInfo info = shotWith(camera);
    info.logEncoding = curve;
    return info;
}

TEST(LutResolver, KnowsTheCurveOfAClip) {
    using enum ClipFormat;
    TempFolder temp;
    const auto xml = [](const std::string& gamma, const std::string& gamut) {
        return "<NonRealTimeMeta><AcquisitionRecord><Group>"
               "<Item name=\"CaptureGammaEquation\" value=\"" +
               gamma + "\"/>" +
               (gamut.empty() ? "" : "<Item name=\"CaptureColorPrimaries\" value=\"" + gamut + "\"/>") +
               "</Group></AcquisitionRecord></NonRealTimeMeta>";
    };
    struct Case {
        ClipFormat format;
        std::optional<ClipInfo> info;
        std::string sidecar;
        LutResolver::Detected wanted;
    };
    for (const Case& c : std::vector<Case>{
             {arriraw, curveOf("ARRI LogC4", ""), "", {"arri-logc4-awg4", "ARRIRAW (LogC4)"}},
             {arriraw, curveOf("LogC3", "ARRI ALEXA 35"), "", {"arri-logc3-awg3", "ARRIRAW (LogC3)"}},
             {arriraw, {}, "", {"arri-logc3-awg3", "ARRIRAW (LogC3)"}},
             {r3d, {}, "", {"red-log3g10-rwg", "RED R3D (IPP2 Log3G10)"}},
             {braw, {}, "", {"bmd-film-gen5", "Blackmagic RAW (gamma not stated — assuming Film Gen 5)"}},
             {braw, brawOf("", 4), "", {"bmd-film-gen5", "Blackmagic RAW (gamma not stated — assuming Film Gen 5)"}},
             {braw,
              brawOf("blackmagic design film", 5),
              "",
              {"bmd-film-gen5", "Blackmagic RAW: blackmagic design film Gen 5"}},
             {braw,
              brawOf("Blackmagic Design Film", {}),
              "",
              {"bmd-film-gen5", "Blackmagic RAW: Blackmagic Design Film"}},
             {braw,
              brawOf("Blackmagic Design Film", 4),
              "",
              {{}, "Blackmagic RAW: Blackmagic Design Film Gen 4 (no built-in LUT)"}},
             {braw,
              brawOf("Blackmagic Design Video", 5),
              "",
              {{}, "Blackmagic RAW: Blackmagic Design Video Gen 5 (not log)"}},
             {video,
              shotWith("ALEXA 35"),
              xml("s-log3-cine", "s-gamut3-cine"),
              {"sony-slog3-sgamut3cine", "Sony XML: s-log3-cine / s-gamut3-cine"}},
             {video, {}, xml("S-Log3", "S-Gamut3"), {"sony-slog3-sgamut3", "Sony XML: S-Log3 / S-Gamut3"}},
             {video, {}, xml("s-log3", ""), {"sony-slog3-sgamut3", "Sony XML: s-log3"}},
             {video, {}, xml("s-log2", "s-gamut"), {{}, "Sony XML: s-log2 (no built-in LUT)"}},
             {video, {}, xml("rec709", "rec709"), {{}, "Sony XML: rec709 (not log)"}},
             {video, shotWith("ALEXA 35"), "", {"arri-logc4-awg4", "ARRI camera (assuming LogC4)"}},
             {video, shotWith("ARRI Alexa35 Xtreme"), "", {"arri-logc4-awg4", "ARRI camera (assuming LogC4)"}},
             {video, shotWith("ALEXA 350"), "", {"arri-logc3-awg3", "ARRI camera (assuming LogC3)"}},
             {video, shotWith("ALEXA Mini LF"), "no XML", {"arri-logc3-awg3", "ARRI camera (assuming LogC3)"}},
             {video, shotWith("Amira"), "", {"arri-logc3-awg3", "ARRI camera (assuming LogC3)"}},
             {video, shotWith("Canon EOS C70"), "", {{}, "camera not recognised"}},
             {canonRaw, {}, "", {{}, "camera not recognised"}},
             {unknown, {}, "", {{}, "camera not recognised"}}}) {
        test::FileTree::write(temp / "C0001M01.XML", c.sidecar);
        EXPECT_EQ(LutResolver::detect(clipOf(c.format), c.info, temp / "C0001.MXF"), c.wanted) << c.wanted.reason;
    }
    for (const auto& [curve, space] : {std::pair{"LOGC4 x", "AWG4/D65/LogC4"},
                                       {"LogC-EI800", "AWG3/D65/LogC3"},
                                       {"LogC x", "AWG3/D65/LogC3"},
                                       {"LogC", "AWG4/D65/LogC4"}})
        EXPECT_EQ(ArriColorSpace::of(curveOf(curve, "alexa  35")), space) << curve;
}

TEST(LutResolver, GivesEachClipItsLutOrTheReasonWhyNot) {
    const auto with = [](std::optional<LutMode> mode, std::optional<std::string> builtin,
                         std::optional<std::string> path, std::optional<std::string> fallback) {
        ProxySettings settings;
        settings.lutMode = mode;
        settings.lutBuiltin = std::move(builtin);
        settings.lutPath = std::move(path);
        settings.lutFallback = std::move(fallback);
        return settings;
    };
    using enum LutMode;
    const std::string found = "selected in settings", lost = "camera not recognised — fallback LUT";
    const auto named = [](const std::string& source, const std::string& id, const std::string& reason) {
        return LutUse{source, id, "Name of " + id, reason, "/luts/" + id};
    };
    struct Case {
        ProxySettings settings;
        ClipFormat format;
        LutCatalog catalog;
        LutUse wanted;
    };
    for (const Case& c : std::vector<Case>{
             {with(off, {}, "/x.cube", "r"), ClipFormat::r3d, whole, LutUse::off("off in settings")},
             {with(builtin, "bmd-film-gen5", {}, {}), ClipFormat::r3d, whole, named("builtin", "bmd-film-gen5", found)},
             {with(builtin, "none", {}, {}), ClipFormat::r3d, whole, LutUse::off("built-in LUT not found")},
             {with(builtin, {}, {}, {}), ClipFormat::r3d, whole, LutUse::off("built-in LUT not found")},
             {with(custom, {}, "/x.cube", {}), ClipFormat::r3d, {}, {"custom", {}, "custom LUT", found, "/x.cube"}},
             {with({}, {}, "/x.cube", {}), ClipFormat::r3d, whole, {"custom", {}, "custom LUT", found, "/x.cube"}},
             {with(custom, {}, "", {}), ClipFormat::r3d, whole, LutUse::off("no custom LUT selected")},
             {with({}, {}, "", {}), ClipFormat::r3d, {}, LutUse::off("built-in LUTs missing")},
             {with({}, {}, {}, {}), ClipFormat::r3d, whole,
              named("builtin", "red-log3g10-rwg", "RED R3D (IPP2 Log3G10)")},
             {with(automatic, {}, {}, "y"), ClipFormat::r3d, catalogOf({"y"}), LutUse::off("built-in LUT not found")},
             {with(automatic, {}, {}, "y"), ClipFormat::video, catalogOf({"y"}), named("fallback", "y", lost)},
             {with(automatic, {}, {}, "/y.cube"),
              ClipFormat::video,
              whole,
              {"fallback", {}, "custom LUT", lost, "/y.cube"}},
             {with(automatic, {}, {}, "gone"), ClipFormat::video, whole, LutUse::off("camera not recognised")}})
        EXPECT_EQ(LutResolver::resolve(clipOf(c.format), {}, "/none/C0001.MXF", c.settings, c.catalog), c.wanted)
            << c.wanted.reason;
}

TEST(CameraHints, LabelTheCardByItsFirstClip) {
    using enum ClipFormat;
    Clip proxy = clipOf(video);
    proxy.isCameraProxy = true;
    struct Case {
        ClipFormat format;
        std::optional<ClipInfo> info;
        std::string wanted;
    };
    for (const Case& c : std::vector<Case>{{video, shotWith("ARRI ALEXA 35"), "ALEXA 35 · ARRI LogC4"},
                                           {video, shotWith("ARRI"), "ARRI"},
                                           {arriraw, shotWith("ALEXA Mini LF"), "ALEXA Mini LF · ARRI LogC3"},
                                           {r3d, {}, "Log3G10"},
                                           {braw, brawOf("Blackmagic Design Film", 5), "Film Gen 5"},
                                           {braw, brawOf("Blackmagic Design Film", 4), "Film Gen 4"},
                                           {braw, brawOf("Blackmagic Design Video", {}), "Blackmagic Design Video"},
                                           {canonRaw, curveOf("Canon Log 3", "Canon EOS C70"), "EOS C70 · C-Log"},
                                           {video, {}, ""}}) {
        const auto probe = [&](const Clip& clip) { return clip.isCameraProxy ? shotWith("wrong") : c.info; };
        EXPECT_EQ(CameraHints::probe({proxy, clipOf(c.format)}, "/none", {}, whole, probe).text(), c.wanted);
    }
    EXPECT_EQ(CameraHints::probe({}, "/none", {}, whole, {}), CameraLabel());
    EXPECT_EQ(CameraLabel::shortCurve("Blackmagic Film Generation 4"), "Film Gen 4");
    EXPECT_EQ(CameraLabel::shortCurve("clog2"), "C-Log");
}

} // namespace
} // namespace velmora
