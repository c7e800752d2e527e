#include "proxies/ClipProbe.h"

#include "base/JsonFields.h"
#include "base/Text.h"
#include "clips/FFProbe.h"
#include "clips/SonyXML.h"
#include "proxies/ToolProcess.h"

#include <algorithm>

namespace velmora {

ClipProbe::ClipProbe(ExternalTools tools, Backends backends, double timeout)
    : tools_(std::move(tools)), backends_(std::move(backends)), timeout_(timeout) {}

const RawBackend* ClipProbe::backend(ClipFormat format) const {
    const auto found = std::ranges::find_if(backends_, [&](const auto& each) { return each->format() == format; });
    return found == backends_.end() ? nullptr : found->get();
}

std::optional<std::string> ClipProbe::unsupportedReason(ClipFormat format) const {
    if (!tools_.ffmpeg && format == ClipFormat::video)
        return "ffmpeg not found";
    if (format == ClipFormat::video)
        return std::nullopt;
    const RawBackend* reader = backend(format);
    if (!reader)
        return std::string(label(format)) + ": no decoder available";
    return reader->isAvailable(tools_) ? std::nullopt : std::optional(reader->missingHint());
}

std::string ClipProbe::pathOf(const Clip& clip, const std::string& cardPath) {
    return clip.path.empty() ? cardPath : cardPath + "/" + clip.path;
}

ClipInfo ClipProbe::probe(const Clip& clip, const std::string& cardPath, const IsCancelled& isCancelled) const {
    const std::string path = pathOf(clip, cardPath);
    if (clip.format == ClipFormat::video)
        return probeVideo(path, isCancelled);
    if (const auto reason = unsupportedReason(clip.format))
        throw ToolError(std::string(label(clip.format)), -1, *reason);
    return backend(clip.format)->probe(path, tools_, isCancelled);
}

ClipInfo ClipProbe::probeVideo(const std::string& path, const IsCancelled& isCancelled) const {
    if (!tools_.ffprobe)
        throw ToolError("ffprobe", -1, "not found");
    ChildProcess::Options options = ToolProcess::options(*tools_.ffprobe, FFProbe::arguments(path));
    options.outputLimit = std::size_t{16} << 20; // a thousand streams; a file may claim any number
    ClipInfo info;
    try {
        info = FFProbe::parse(ChildProcess::run(std::move(options), timeout_, isCancelled), Timestamp::now());
    } catch (const FormatError& error) {
        throw ToolError("ffprobe", 0, error.what());
    }
    const SonyXML::Sidecar sidecar = SonyXML::load(path);
    info.captureFrameRate = sidecar.captureFrameRate;
    info.gamma = sidecar.picture.gamma;
    info.gamut = sidecar.picture.gamut;
    return info;
}

std::optional<ClipProbe::Reclassified> ClipProbe::reclassifyUndecodableMXF(const Clip& clip,
                                                                           const std::string& cardPath,
                                                                           const ClipInfo& info,
                                                                           const IsCancelled& isCancelled) const {
    const bool unknown = !info.codec || info.codec->starts_with("unknown");
    if (clip.format != ClipFormat::video || !toLower(clip.path).ends_with(".mxf") || !unknown || info.width)
        return std::nullopt;
    const RawBackend* reader = backend(ClipFormat::arriraw);
    if (!reader || !reader->isAvailable(tools_))
        return std::nullopt;
    try {
        Reclassified result{clip, reader->probe(pathOf(clip, cardPath), tools_, isCancelled)};
        result.clip.format = ClipFormat::arriraw;
        return result;
    } catch (const ToolError& error) {
        if (error.message() == "cancelled")
            throw;
        return std::nullopt; // no ARRIRAW either
    }
}

} // namespace velmora
