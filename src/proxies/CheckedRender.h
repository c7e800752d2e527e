#pragma once

#include "proxies/ProxyRenderer.h"
#include "records/ClipContent.h"
#include "records/ExternalTools.h"

#include <optional>
#include <string>

namespace velmora {

// Makes a proxy and judges the clip by what its decoder said meanwhile. `file` is where the clip lies, also when it is
// rendered from an address; `tools` are resolved. A proxy of a clip with a defect tells of it from then on. Throws as
// ProxyRenderer::render.
ClipContent renderChecked(ProxyRenderer& renderer, RenderRequest request, const std::string& file,
                          const ExternalTools& tools);

// The defect of which a proxy tells; none for that of a sound clip.
std::optional<ClipContent> defectToldBy(const std::string& proxy);

} // namespace velmora
