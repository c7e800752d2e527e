#include "proxies/ProxyDecision.h"

#include "base/RelativePath.h"
#include "disks/SpaceEstimator.h"
#include "proxies/ClipProbe.h"
#include "proxies/LighterSource.h"

#include <fmt/format.h>

#include <array>
#include <map>

namespace velmora {

std::string_view name(ProxyOutcome outcome) noexcept {
    constexpr std::array<std::string_view, 7> names{"waiting", "done",        "existing", "lighter",
                                                    "skipped", "unsupported", "failed"};
    return names[static_cast<std::size_t>(outcome)];
}

namespace ProxyDecision {

std::optional<NoProxy> whyNot(const ClipEntry& entry, const ProxySettings& settings, const ClipProbe& probe) {
    const Clip& clip = entry.clip;
    if (clip.isCameraProxy && settings.skipCameraProxies)
        return NoProxy{ProxyOutcome::skipped, "recorded by the camera as a proxy"};
    if (auto reason = probe.unsupportedReason(clip.format))
        return NoProxy{ProxyOutcome::unsupported, std::move(*reason)};
    if (!entry.info)
        return NoProxy{ProxyOutcome::failed, entry.probeError.value_or("the clip could not be read")};
    if (clip.format == ClipFormat::video && !entry.info->width)
        return NoProxy{ProxyOutcome::unsupported, entry.info->codec ? "codec not supported by ffmpeg (e.g. Sony X-OCN)"
                                                                    : "there is no picture in the file"};
    if (entry.lut)
        if (auto note = LighterSource::note(*entry.info, settings, *entry.lut))
            return NoProxy{ProxyOutcome::lighter, std::move(*note)};
    return std::nullopt;
}

std::int64_t bytesOf(const std::vector<const ClipEntry*>& entries, ProxySettings settings) {
    std::vector<Clip> clips;
    std::map<std::string, const ClipInfo*> infos;
    for (const ClipEntry* entry : entries) {
        clips.push_back(entry->clip);
        infos[entry->clip.path] = entry->info ? &*entry->info : nullptr;
    }
    settings.enabled = true;
    return SpaceEstimator::proxyBytes(clips, settings, {}, [&](const Clip& clip) { return infos[clip.path]; }, {});
}

std::string defectText(const ClipContent& content) {
    if (!content.kind)
        return {};
    std::string text = content.kindText();
    if (content.frame)
        text += fmt::format(" at {}", content.timecode.value_or(fmt::format("frame {}", *content.frame)));
    return text + ": " + content.message.value_or("");
}

std::string renamedText(std::string_view file) {
    return fmt::format("Proxy renamed to {} (name clash) — relink it by hand.", RelativePath::name(file));
}

} // namespace ProxyDecision

} // namespace velmora
