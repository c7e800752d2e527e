#pragma once

#include "proxies/RawBackend.h"
#include "proxies/RawDecoderError.h"

namespace velmora {

// A maker's program that cannot pipe: it writes a whole film, and ffmpeg reads that.
class IntermediateBackend : public RawBackend {
public:
    struct Patience {
        double probe = 60;   // seconds
        double render = 300; // seconds in which the intermediate does not grow
    };

protected:
    IntermediateBackend(const char* tool, Patience patience) : tool_(tool), patience_(patience) {}

    const Patience& patience() const noexcept { return patience_; }

    // Throws ToolError when the program is not there.
    void expectTool(const ExternalTools& tools) const {
        if (!isAvailable(tools))
            throw ToolError(tool_, -1, missingHint());
    }
    // Also throws RawDecoderError for a single frame: making it would take as long as the start of a render.
    void expectRender(const FrameRequest& request) const {
        expectTool(request.tools);
        if (request.singleFrameAt)
            throw RawDecoderError(RawDecoderError::thumbnailFromProxy, ToolError(tool_, 0, ""));
    }

private:
    const char* tool_;
    Patience patience_;
};

} // namespace velmora
