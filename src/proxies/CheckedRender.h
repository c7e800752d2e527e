#pragma once

#include "proxies/ProxyRenderer.h"
#include "records/ClipContent.h"
#include "records/ExternalTools.h"

namespace velmora {

// Makes a proxy and judges the clip by what its decoder said meanwhile. `tools` resolved; the source is a file, and its
// path names it. Throws as ProxyRenderer::render.
ClipContent renderChecked(ProxyRenderer& renderer, RenderRequest request, const ExternalTools& tools);

} // namespace velmora
