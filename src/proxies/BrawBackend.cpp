#include "proxies/BrawBackend.h"

#include "base/Text.h"
#include "proxies/BrawLibrary.h"
#include "proxies/RawPicture.h"
#include "proxies/ToolProcess.h"
#include "records/FrameRate.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <fmt/format.h>

namespace velmora {

namespace {

constexpr const char* toolName = "braw-decode";

// The decoder finds the library on the loader's path, behind whatever the user has put there.
ChildProcess::Options decoderOptions(const std::string& decoder, std::vector<std::string> arguments) {
    auto options = ToolProcess::options(decoder, std::move(arguments));
    if (const auto library = BrawLibrary::find(decoder)) {
        const char* present = std::getenv("LD_LIBRARY_PATH");
        options.environment.push_back(present != nullptr && *present != '\0'
                                          ? fmt::format("LD_LIBRARY_PATH={}:{}", present, *library)
                                          : "LD_LIBRARY_PATH=" + *library);
    }
    return options;
}

std::vector<std::string> scaleArguments(const std::string& scale) {
    return scale.empty() ? std::vector<std::string>() : std::vector<std::string>{"--scale", scale};
}

std::string libraryOf(const ExternalTools& tools) {
    return BrawLibrary::find(tools.brawDecoder.value_or("")).value_or(BrawLibrary::fileName);
}

std::string lastLine(const std::string& text) {
    const auto lines = split(text, '\n');
    const auto last = std::find_if(lines.rbegin(), lines.rend(), [](std::string_view l) { return !trim(l).empty(); });
    return last == lines.rend() ? std::string() : trim(*last);
}

} // namespace

std::string BRAWBackend::missingHint() const {
    return "Blackmagic RAW: braw-decode or the Blackmagic RAW library is missing (SDK, Player or DaVinci Resolve)";
}

bool BRAWBackend::isAvailable(const ExternalTools& tools) const {
    return tools.brawDecoder && BrawLibrary::find(*tools.brawDecoder);
}

ClipInfo BRAWBackend::probe(const std::string& clipPath, const ExternalTools& tools,
                            const IsCancelled& isCancelled) const {
    return info(clipPath, tools, {}, isCancelled).clipInfo();
}

BrawInfo BRAWBackend::info(const std::string& clipPath, const ExternalTools& tools, const std::string& scale,
                           const IsCancelled& isCancelled) const {
    if (!isAvailable(tools))
        throw ToolError(toolName, -1, missingHint());
    std::vector<std::string> arguments = {"--info"};
    for (std::string& word : scaleArguments(scale))
        arguments.push_back(std::move(word));
    arguments.push_back(clipPath);
    auto options = decoderOptions(*tools.brawDecoder, std::move(arguments));
    options.outputLimit = std::size_t{1} << 20;
    std::string said;
    try {
        said = ChildProcess::run(std::move(options), infoTimeout_, isCancelled);
    } catch (const ToolError& error) {
        // Without a start or with an end of our own making there is nothing to explain.
        const std::string& why = error.message();
        if (error.status() < 0 || why == "cancelled" || why.ends_with(" — stopped"))
            throw;
        throw explain(error, libraryOf(tools), Asked::info);
    }
    return BrawInfo::parse(said);
}

std::string BRAWBackend::scale(std::int64_t sourceHeight, double wantedHeight) {
    struct Step {
        const char* word;
        double part;
    };
    constexpr std::array steps{Step{"eighth", 8}, Step{"quarter", 4}, Step{"half", 2}};
    for (const auto& [word, part] : steps)
        if (static_cast<double>(sourceHeight) / part >= wantedHeight)
            return word;
    return {};
}

std::int64_t BRAWBackend::startFrame(double seconds, double fps, std::int64_t frames) {
    const double last = static_cast<double>(std::max<std::int64_t>(frames, 1) - 1);
    const double frame = std::floor(seconds * fps + 1e-6); // a time that was worked out from a frame means that frame
    return static_cast<std::int64_t>(frame > 0 ? std::min(frame, last) : 0); // not a number: the first one
}

FrameSource BRAWBackend::source(const FrameRequest& request) const {
    constexpr double thumbnailLines = 180;
    const double lines =
        request.singleFrameAt ? thumbnailLines : RawPicture::linesWanted(request.info, request.settings);
    const std::string size = scale(request.info.height.value_or(0), lines);
    const BrawInfo frames = info(request.clipPath, request.tools, size, request.isCancelled);
    std::vector<std::string> arguments = scaleArguments(size);
    if (request.singleFrameAt) {
        const std::int64_t start = startFrame(*request.singleFrameAt, frames.fps, frames.frames);
        arguments.insert(arguments.end(), {"--start", std::to_string(start), "--count", "1"});
    }
    arguments.push_back(request.clipPath);

    FrameSource source;
    source.inputArgs = {"-f",
                        "rawvideo",
                        "-pixel_format",
                        "rgb48le",
                        "-video_size",
                        fmt::format("{}x{}", frames.width, frames.height),
                        "-framerate",
                        FrameRate::rational(frames.fps),
                        "-i",
                        "pipe:0"};
    source.feeder = decoderOptions(*request.tools.brawDecoder, std::move(arguments));
    source.fullRange = true;
    source.explainFeederError = [library = libraryOf(request.tools)](const ToolError& error) -> ToolError {
        const RawDecoderError explained = explain(error, library, Asked::frames);
        return {explained.tool(), explained.status(), explained.note()};
    };
    return source;
}

RawDecoderError BRAWBackend::explain(const ToolError& error, const std::string& library, Asked asked) {
    const std::string line = lastLine(error.message());
    // The names of folders are not the decoder's words.
    const std::size_t path = line.find('/');
    std::string words = toLower(line);
    if (path != std::string::npos)
        words = toLower(line.substr(0, path) + line.substr(line.rfind('/')));
    const auto says = [&](const char* word) { return words.find(word) != std::string::npos; };
    const auto note = [&](const std::string& text) { return RawDecoderError("Blackmagic RAW: " + text, error); };
    if (says("library"))
        return note(fmt::format("cannot use the library {} — install the current Blackmagic RAW Player", library));
    if (says("open") || asked == Asked::info)
        return note(fmt::format("cannot open the clip — it is damaged, or the library {} is older than the camera "
                                "(install the current Blackmagic RAW Player)",
                                library));
    return note(fmt::format("could not decode a frame of the clip ({})",
                            line.empty() ? fmt::format("exit {}", error.status()) : line));
}

} // namespace velmora
