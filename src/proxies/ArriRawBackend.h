#pragma once

#include "proxies/IntermediateBackend.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// ARRIRAW, a folder of .ari frames or an MXF file, read with art-cmd of the ARRI Reference Tool. It writes a ProRes
// file of the log picture first, already upright, with square pixels, cut to the frame lines and of the proxy's size.
class ARRIRAWBackend : public IntermediateBackend {
public:
    ARRIRAWBackend() : ARRIRAWBackend(Patience{}) {}
    explicit ARRIRAWBackend(Patience patience);

    ClipFormat format() const override { return ClipFormat::arriraw; }
    std::string missingHint() const override;
    bool isAvailable(const ExternalTools& tools) const override { return tools.artCmd.has_value(); }
    ClipInfo probe(const std::string& clipPath, const ExternalTools& tools,
                   const IsCancelled& isCancelled) const override;
    FrameSource source(const FrameRequest& request) const override;

    // The size and cut that art-cmd is told, as its parameter file.
    struct Picture {
        std::string parameters; // JSON
        std::int64_t width = 0; // of the intermediate; 0 when not known
        std::int64_t height = 0;
        bool cropped = false;
    };
    static Picture picture(const ClipInfo& info, const ProxySettings& settings);
    // What art-cmd says of a failure: its lines of errors without time and level; all of them where none is so marked.
    static std::string logTail(std::string_view output);
};

} // namespace velmora
