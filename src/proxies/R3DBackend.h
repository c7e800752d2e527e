#pragma once

#include "proxies/IntermediateBackend.h"

#include <cstdint>

namespace velmora {

// RED R3D, read with REDline of REDCINE-X PRO. REDline cannot pipe: it writes a ProRes file of the camera's log picture
// first, in Log3G10 and REDWideGamutRGB, which is what the LUT for RED expects.
class R3DBackend : public IntermediateBackend {
public:
    R3DBackend() : R3DBackend(Patience{}) {}
    explicit R3DBackend(Patience patience);

    ClipFormat format() const override { return ClipFormat::r3d; }
    std::string missingHint() const override;
    bool isAvailable(const ExternalTools& tools) const override { return tools.redline.has_value(); }
    ClipInfo probe(const std::string& clipPath, const ExternalTools& tools,
                   const IsCancelled& isCancelled) const override;
    FrameSource source(const FrameRequest& request) const override;

    // REDline's number for the smallest decode that still has the wanted lines: 1, 2, 4, 8 or 16, the divisor of the
    // whole size.
    static int resolution(std::int64_t sourceHeight, double wantedHeight);
};

} // namespace velmora
