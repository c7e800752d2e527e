#pragma once

#include "proxies/RawBackend.h"

namespace velmora {

// Canon Cinema RAW Light: no tool can decode it here, so such clips are copied and verified and get no proxy.
class CanonRawBackend : public RawBackend {
public:
    ClipFormat format() const override { return ClipFormat::canonRaw; }
    std::string missingHint() const override;
    bool isAvailable(const ExternalTools&) const override { return false; }
    ClipInfo probe(const std::string&, const ExternalTools&, const IsCancelled&) const override;
    FrameSource source(const FrameRequest&) const override;
};

} // namespace velmora
