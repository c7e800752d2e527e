#include "proxies/CheckedRender.h"

#include "base/JsonFields.h"
#include "clips/ContentCheck.h"
#include "proxies/DefectLocator.h"
#include "proxies/MovFile.h"

#include <nlohmann/json.hpp>

namespace velmora {

ClipContent renderChecked(ProxyRenderer& renderer, RenderRequest request, const std::string& file,
                          const ExternalTools& tools) {
    ContentCheck check;
    ClipContent content;
    request.onErrorLine = [&](std::string_view line) { check.errorLine(line); };
    request.onProgressLine = [&](std::string_view line) { check.progressLine(line); };
    request.onRestart = [&] { check.reset(); };
    request.onWhole = [&](const std::string& film) {
        content = check.verdict(request.clip, request.info);
        if (request.clip.format == ClipFormat::video)
            DefectLocator::refine(content, file, request.info, tools, request.isCancelled);
        if (content.kind)
            MovFile::append(film, Json::compact(content));
    };
    renderer.render(request);
    return content;
}

std::optional<ClipContent> defectToldBy(const std::string& proxy) try {
    const auto words = MovFile::appended(proxy);
    return words ? std::optional(Json::parse(*words).get<ClipContent>()) : std::nullopt;
} catch (const FormatError&) {
    return std::nullopt;
}

} // namespace velmora
