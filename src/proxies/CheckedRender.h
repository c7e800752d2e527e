#pragma once

#include "proxies/ProxyRenderer.h"
#include "records/ClipContent.h"
#include "records/ExternalTools.h"

#include <optional>
#include <string>

namespace velmora {

// Makes a proxy and judges the clip by what its decoder said meanwhile. `file` is where the clip lies, also when it is
// rendered from an address; `tools` are resolved. A clip's defect is written into its proxy. Throws as
// ProxyRenderer::render.
ClipContent renderChecked(ProxyRenderer& renderer, RenderRequest request, const std::string& file,
                          const ExternalTools& tools);

// The defect that is written into a proxy; none when its clip was sound.
std::optional<ClipContent> defectToldBy(const std::string& proxy);

} // namespace velmora
