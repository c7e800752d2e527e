#include "proxies/R3DBackend.h"

#include "proxies/FrameCount.h"
#include "proxies/Intermediate.h"
#include "proxies/RawPicture.h"
#include "proxies/RedMeta.h"
#include "proxies/ToolProcess.h"

#include <fmt/format.h>

namespace velmora {

namespace {
constexpr const char* toolName = "REDline";
}

R3DBackend::R3DBackend(Patience patience) : IntermediateBackend(toolName, patience) {}

std::string R3DBackend::missingHint() const { return "RED R3D: install REDCINE-X PRO (REDline)"; }

ClipInfo R3DBackend::probe(const std::string& clipPath, const ExternalTools& tools,
                           const IsCancelled& isCancelled) const {
    expectTool(tools);
    auto options = ToolProcess::options(*tools.redline, {"--printMeta", "1", "--i", clipPath});
    options.outputLimit = std::size_t{4} << 20; // some pages; a damaged clip may claim any number
    return RedMeta::parse(ChildProcess::run(std::move(options), patience().probe, isCancelled));
}

int R3DBackend::resolution(std::int64_t sourceHeight, double wantedHeight) {
    int part = 1;
    constexpr int smallest = 16;
    while (part < smallest && static_cast<double>(sourceHeight) / (2.0 * part) >= wantedHeight)
        part *= 2;
    return part;
}

FrameSource R3DBackend::source(const FrameRequest& request) const {
    expectRender(request);
    Intermediate intermediate(request.tempDir);
    const std::int64_t width = request.info.width.value_or(0), height = request.info.height.value_or(0);
    const int part = height > 0 ? resolution(height, RawPicture::linesWanted(request.info, request.settings)) : 1;
    Intermediate::Job job;
    job.program = *request.tools.redline;
    job.arguments = {"--i",       request.clipPath,
                     "--outDir",  intermediate.folder(),
                     "--o",       "intermediate",
                     "--format",  "201",
                     "--PRcodec", "0",
                     "--res",     std::to_string(part),
                     "--useMeta", "--colorSciVersion",
                     "3",         "--gammaCurve",
                     "34",        "--colorSpace",
                     "25"};
    job.expectedBytes = Intermediate::proresBytes(width / part, height / part, request.info.frames.value_or(0));
    job.isCancelled = request.isCancelled;
    job.progress = request.progress;
    job.patience = patience().render;
    const auto [status, output] = intermediate.run(job);
    if (status != 0)
        throw ToolError(toolName, status, output);
    const std::string file = intermediate.newestFile();
    if (file.empty())
        throw ToolError(toolName, status, fmt::format("no output in {}", intermediate.folder()));
    FrameCount::check(request.tools, file, request.info, toolName, request.isCancelled);
    FrameSource source;
    source.inputArgs = {"-i", "file:" + file};
    source.audioFromInput = true;
    source.cleanup = {intermediate.handOver()};
    return source;
}

} // namespace velmora
