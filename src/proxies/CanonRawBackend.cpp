#include "proxies/CanonRawBackend.h"

namespace velmora {

std::string CanonRawBackend::missingHint() const {
    return "Canon Cinema RAW Light: there is no command-line decoder for macOS — copied and verified, proxy skipped";
}

ClipInfo CanonRawBackend::probe(const std::string&, const ExternalTools&, const IsCancelled&) const {
    throw ToolError("Canon RAW", -1, missingHint());
}

FrameSource CanonRawBackend::source(const FrameRequest&) const { throw ToolError("Canon RAW", -1, missingHint()); }

} // namespace velmora
