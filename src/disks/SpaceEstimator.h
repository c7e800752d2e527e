#pragma once

#include "records/Clip.h"
#include "records/ProxySettings.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace velmora {

struct ClipInfo;

// How big the proxies of a card will be, before they are rendered. The estimate is rather too high than too low: too
// high costs the user a question, too low fills the disk up during the render and costs proxies.
namespace SpaceEstimator {

// What is known of a clip's sound: the channels of each stream. None when the clip has not been probed yet.
using AudioStreams = std::optional<std::vector<std::int64_t>>;

// Mbit/s of a proxy. `bitrateMbps` counts for h264 and hevc alone, `fps` for ProRes alone.
double proxyMbps(ProxyCodec codec, std::int64_t height, const AudioStreams& audio, std::int64_t bitrateMbps,
                 double fps = 30);

// Mbit/s that a clip without a known duration is taken to have been recorded at.
double sourceMbps(ClipFormat format, std::string_view path);
// Seconds of a clip: its duration when that is known and can be true, else told from its bytes.
double seconds(const Clip& clip, const ClipInfo* info);

using ClipTest = std::function<bool(const Clip&)>;
using InfoOf = std::function<const ClipInfo*(const Clip&)>; // null when not probed

// Bytes of all proxies. Not counted are clips that cannot be rendered here, those that `noProxy` names, and camera
// proxies where the settings pass over them. 0 with proxies switched off. Empty callbacks: all can be rendered, nothing
// is probed, no clip is named.
std::int64_t proxyBytes(const std::vector<Clip>& clips, const ProxySettings& settings, const ClipTest& renderable,
                        const InfoOf& info, const ClipTest& noProxy);

} // namespace SpaceEstimator

} // namespace velmora
