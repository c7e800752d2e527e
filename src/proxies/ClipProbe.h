#pragma once

#include "proxies/RawBackend.h"
#include "records/Clip.h"
#include "records/ClipInfo.h"
#include "records/ExternalTools.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Reads clips: video with ffprobe and the sidecar, camera RAW with the maker's tool. Any thread.
class ClipProbe {
public:
    using Backends = std::vector<std::unique_ptr<RawBackend>>;

    // `tools` are resolved: a field that is empty is a tool that is not there.
    explicit ClipProbe(ExternalTools tools, Backends backends = RawBackends::all(), double timeout = 60);

    const ExternalTools& tools() const { return tools_; }
    const RawBackend* backend(ClipFormat format) const; // null: none for that format
    // Why clips of that format cannot be rendered; none when they can.
    std::optional<std::string> unsupportedReason(ClipFormat format) const;

    // Throws ToolError; its message is "cancelled" when told to stop.
    ClipInfo probe(const Clip& clip, const std::string& cardPath, const IsCancelled& isCancelled = {}) const;

    // ARRIRAW comes in MXF files too, of which ffprobe knows neither codec nor size. None: the clip stays what it is.
    struct Reclassified {
        Clip clip;
        ClipInfo info;
    };
    std::optional<Reclassified> reclassifyUndecodableMXF(const Clip& clip, const std::string& cardPath,
                                                         const ClipInfo& info,
                                                         const IsCancelled& isCancelled = {}) const;

    // Full path of the clip: of the file, the first segment, or the folder of its frames.
    static std::string pathOf(const Clip& clip, const std::string& cardPath);

private:
    ClipInfo probeVideo(const std::string& path, const IsCancelled& isCancelled) const;

    ExternalTools tools_;
    Backends backends_;
    double timeout_;
};

} // namespace velmora
