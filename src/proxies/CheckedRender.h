#pragma once

#include "proxies/ProxyRenderer.h"
#include "records/ClipContent.h"
#include "records/ExternalTools.h"

namespace velmora {

// Makes a proxy and judges the clip by what its decoder said meanwhile. `file` is where the clip
// lies, also when it is rendered from an address; `tools` are resolved. Throws as ProxyRenderer::render.
ClipContent renderChecked(ProxyRenderer& renderer, RenderRequest request, const std::string& file,
                          const ExternalTools& tools);

} // namespace velmora
