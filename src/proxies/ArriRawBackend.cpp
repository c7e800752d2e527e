#include "proxies/ArriRawBackend.h"

#include "base/JsonFields.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "platform/IO.h"
#include "platform/PrivateFolder.h"
#include "proxies/ArriColorSpace.h"
#include "proxies/ArriMeta.h"
#include "proxies/FrameCount.h"
#include "proxies/FrameLines.h"
#include "proxies/Intermediate.h"
#include "records/Timecode.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <re2/re2.h>

namespace velmora {

namespace {

constexpr const char* toolName = "art-cmd";

std::int64_t even(double value) { return 2 * static_cast<std::int64_t>(std::llround(value / 2)); }

// The file that art-cmd was to write. Throws ToolError in its words when it is not there.
void expectFile(const ToolProcess::Combined& end, const std::string& file) {
    if (end.status != 0)
        throw ToolError(toolName, end.status, ARRIRAWBackend::logTail(end.output));
    if (!IO::exists(file) || IO::stat(file).size == 0)
        throw ToolError(toolName, end.status, "no output file");
}

// One file a frame, or one file of them all.
std::optional<std::int64_t> framesOf(const std::string& clipPath, const ClipInfo& info, const ExternalTools& tools,
                                     const IsCancelled& isCancelled) {
    if (!IO::isFolder(clipPath)) {
        const auto fps = info.frameRate ? Timecode::fps(*info.frameRate) : std::nullopt;
        return fps ? FrameCount::of(tools, clipPath, *fps, isCancelled) : std::nullopt;
    }
    const auto entries = IO::list(clipPath);
    const auto frames = std::ranges::count_if(
        entries, [](const IOEntry& entry) { return equalIgnoringCase(RelativePath::extension(entry.name), "ari"); });
    return frames > 0 ? std::optional<std::int64_t>(frames) : std::nullopt;
}

} // namespace

ARRIRAWBackend::ARRIRAWBackend(Patience patience) : IntermediateBackend(toolName, patience) {}

std::string ARRIRAWBackend::missingHint() const { return "ARRIRAW: install ARRI Reference Tool (art-cmd)"; }

ClipInfo ARRIRAWBackend::probe(const std::string& clipPath, const ExternalTools& tools,
                               const IsCancelled& isCancelled) const try {
    expectTool(tools);
    const PrivateFolder temporary;
    const Intermediate place(temporary.path());
    // The folder's name is "offload-" and a number that nobody else has.
    const std::string_view folder = RelativePath::name(temporary.path());
    const std::string file = place.folder() + "/art-meta-" + std::string(folder.substr(folder.find('-') + 1)) + ".json";
    constexpr std::int64_t most = std::int64_t{16} << 20;
    Intermediate::Job job;
    job.program = *tools.artCmd;
    job.arguments = {"export", "--input", clipPath, "--output", file, "--skip-audio", "--skip-look", "--duration", "1"};
    job.mostBytes = most;
    job.isCancelled = isCancelled;
    job.patience = patience().probe;
    expectFile(place.run(job), file);
    ClipInfo info = ArriMeta::parse(IO::readFile(file, most));
    if (!info.frames)
        info.frames = framesOf(clipPath, info, tools, isCancelled);
    if (const auto fps = info.frameRate ? Timecode::fps(*info.frameRate) : std::nullopt; fps && info.frames)
        info.duration = static_cast<double>(*info.frames) / *fps;
    return info;
} catch (const IOError& error) {
    throw ToolError(toolName, -1, error.what());
}

ARRIRAWBackend::Picture ARRIRAWBackend::picture(const ClipInfo& info, const ProxySettings& settings) {
    Picture picture;
    picture.parameters = "{}";
    if (!info.width || !info.height)
        return picture;
    const double squeeze = info.squeeze.value_or(1);
    double width = static_cast<double>(*info.width) * squeeze; // as it is seen
    auto height = static_cast<double>(*info.height);
    nlohmann::json parameters = nlohmann::json::object();
    if (const auto crop = FrameLines::crop(settings, std::llround(width), *info.height);
        crop && (*crop)[2] > 0 && (*crop)[3] > 0) {
        picture.cropped = true;
        const auto recorded = [&](std::int64_t seen) { return even(static_cast<double>(seen) / squeeze); };
        parameters["inputCrop"] = {{"displayXOffsetOverride", recorded((*crop)[0])},
                                   {"displayYOffsetOverride", (*crop)[1]},
                                   {"displayWidthOverride", recorded((*crop)[2])},
                                   {"displayHeightOverride", (*crop)[3]}};
        width = static_cast<double>((*crop)[2]);
        height = static_cast<double>((*crop)[3]);
    }
    if (const auto lines = static_cast<double>(settings.height); lines > 0 && lines < height) {
        width *= lines / height;
        height = lines;
        parameters["outputScaling"] = {{"targetWidth", even(width)}, {"targetHeight", even(height)}};
    }
    picture.width = even(width);
    picture.height = even(height);
    picture.parameters = Json::pretty(parameters);
    return picture;
}

FrameSource ARRIRAWBackend::source(const FrameRequest& request) const {
    expectRender(request);
    Intermediate intermediate(request.tempDir);
    const Picture wanted = picture(request.info, request.settings);
    const std::string parameters = intermediate.folder() + "/parameters.json";
    IO::writeFileNew(parameters, wanted.parameters);
    const std::string file = intermediate.folder() + "/intermediate.mxf";
    Intermediate::Job job;
    job.program = *request.tools.artCmd;
    job.arguments = {"process",
                     "--input",
                     request.clipPath,
                     "--output",
                     file,
                     "--video-codec",
                     "prores422hq",
                     "--deflip",
                     "--desqueeze",
                     "--target-colorspace",
                     ArriColorSpace::of(request.info),
                     "--parameters",
                     parameters};
    job.expectedBytes = Intermediate::proresBytes(wanted.width, wanted.height, request.info.frames.value_or(0));
    job.isCancelled = request.isCancelled;
    job.progress = request.progress;
    job.patience = patience().render;
    expectFile(intermediate.run(job), file);
    FrameCount::check(request.tools, file, request.info, toolName, request.isCancelled);
    FrameSource source;
    source.inputArgs = {"-i", "file:" + file};
    source.audioFromInput = true;
    source.alreadyCropped = wanted.cropped;
    source.cleanup = {intermediate.handOver()};
    return source;
}

std::string ARRIRAWBackend::logTail(std::string_view output) {
    static const RE2 prefix(R"(^\[[^\]]*\]\s*\[[^\]]*\]\s*)");
    std::string errors;
    for (const std::string_view line : split(output, '\n')) {
        const std::string lower = toLower(line);
        if (lower.find("[error]") == std::string::npos && lower.find("[critical]") == std::string::npos)
            continue;
        std::string text(line);
        RE2::Replace(&text, prefix, "");
        errors += (errors.empty() ? "" : "\n") + text;
    }
    return errors.empty() ? std::string(output) : errors;
}

} // namespace velmora
