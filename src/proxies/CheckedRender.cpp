#include "proxies/CheckedRender.h"

#include "clips/ContentCheck.h"
#include "proxies/DefectLocator.h"

namespace velmora {

ClipContent renderChecked(ProxyRenderer& renderer, RenderRequest request, const std::string& file,
                          const ExternalTools& tools) {
    ContentCheck check;
    request.onErrorLine = [&](std::string_view line) { check.errorLine(line); };
    request.onProgressLine = [&](std::string_view line) { check.progressLine(line); };
    request.onRestart = [&] { check.reset(); };
    renderer.render(request);
    ClipContent content = check.verdict(request.clip, request.info);
    if (request.clip.format == ClipFormat::video)
        DefectLocator::refine(content, file, request.info, tools, request.isCancelled);
    return content;
}

} // namespace velmora
