#pragma once

#include "proxies/LutCatalog.h"
#include "records/Clip.h"
#include "records/ClipInfo.h"
#include "records/ProxySettings.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The camera of a card and its log curve, shown to the user before a copy.
struct CameraLabel {
    std::optional<std::string> camera;
    std::optional<std::string> curve;

    std::string text() const; // "ALEXA 35 · ARRI LogC4"; empty when nothing is known
    // A camera without its maker's name in front: "ALEXA 35" of "ARRI ALEXA 35".
    static std::string model(std::string_view camera);
    // The id of a built-in LUT, or a curve as a clip states it, in a few words; as it is when there are none.
    static std::string shortCurve(std::string_view look);
    bool operator==(const CameraLabel&) const = default;
};

namespace CameraHints {

// What reading one clip tells; nothing when it cannot be read.
using ProbeClip = std::function<std::optional<ClipInfo>(const Clip& clip)>;

// Takes the first clip of the card that is no camera proxy. Even a clip that cannot be read tells the curve if its
// format does.
CameraLabel probe(const std::vector<Clip>& clips, const std::string& cardPath, const ProxySettings& settings,
                  const LutCatalog& catalog, const ProbeClip& probeClip);

} // namespace CameraHints

} // namespace velmora
