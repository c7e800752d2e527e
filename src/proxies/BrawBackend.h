#pragma once

#include "proxies/BrawInfo.h"
#include "proxies/RawBackend.h"
#include "proxies/RawDecoderError.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora {

// Blackmagic RAW, read with braw-decode, a small program around the maker's library. It pipes frames straight into
// ffmpeg, so nothing is written on the way. docs/raw.md says what it is asked and what it answers.
class BRAWBackend : public RawBackend {
public:
    explicit BRAWBackend(double infoTimeout = 30) : infoTimeout_(infoTimeout) {} // seconds

    ClipFormat format() const override { return ClipFormat::braw; }
    std::string missingHint() const override;
    bool isAvailable(const ExternalTools& tools) const override;
    ClipInfo probe(const std::string& clipPath, const ExternalTools& tools,
                   const IsCancelled& isCancelled) const override;
    FrameSource source(const FrameRequest& request) const override;

    // The decoder's word for the smallest decode that still has the wanted lines; empty for the whole picture.
    static std::string scale(std::int64_t sourceHeight, double wantedHeight);
    static std::int64_t startFrame(double seconds, double fps, std::int64_t frames);
    // What the decoder's failure means to a person. A decoder that tells nothing of the clip has not opened it.
    enum class Asked { info, frames };
    static RawDecoderError explain(const ToolError& error, const std::string& library, Asked asked);

private:
    BrawInfo info(const std::string& clipPath, const ExternalTools& tools, const std::string& scale,
                  const IsCancelled& isCancelled) const;

    double infoTimeout_;
};

} // namespace velmora
