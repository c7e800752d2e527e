#include "proxies/ProxyRenderer.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "platform/File.h"
#include "platform/IO.h"
#include "proxies/ClipProbe.h"
#include "proxies/FFmpegRun.h"
#include "proxies/FilterGraph.h"
#include "proxies/LutCatalog.h"
#include "proxies/MovFile.h"
#include "proxies/ProxyCopy.h"
#include "proxies/ProxyOrigin.h"
#include "proxies/ProxyPaths.h"
#include "proxies/ToolProcess.h"
#include "proxies/ToolSearch.h"
#include "records/Timecode.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>

namespace velmora {

namespace {

using Words = std::vector<std::string>;

constexpr double bakedShare = 0.5; // of the bar, for the stage in which a back-end writes an intermediate

double rateOf(const ClipInfo& info) {
    constexpr double usual = 25;
    const double fps = info.frameRate ? Timecode::fps(*info.frameRate).value_or(0) : 0;
    return fps > 0 ? fps : usual;
}

double secondsOf(const ClipInfo& info) {
    if (info.duration && *info.duration > 0)
        return *info.duration;
    return info.frames ? static_cast<double>(*info.frames) / rateOf(info) : 0;
}

// The start timecode as ffmpeg takes it: it refuses names that are left out at a rate at which none are.
std::optional<std::string> timecodeOf(const ClipInfo& info) {
    if (!info.timecode || !Timecode::isValid(*info.timecode) || rateOf(info) < FilterGraph::slowestTimecode)
        return std::nullopt;
    std::string timecode = *info.timecode;
    constexpr std::size_t lastSeparator = 8;
    constexpr long dropping = 30;
    if (std::max(1L, std::lround(rateOf(info))) % dropping != 0)
        timecode[lastSeparator] = ':';
    return timecode;
}

// Whether the container counts time in a clock of its own and not in frames. There a time that is rounded to it would
// make a constant rate look like a changing one, so the proxy's times are counted in frames; everywhere else they are
// those of the source, to the tick.
bool hasForeignClock(const Clip& clip) {
    const std::string extension = toLower(RelativePath::extension(clip.path));
    return clip.format == ClipFormat::video &&
           (extension == "mts" || extension == "m2ts" || extension == "mkv" || extension == "avi");
}

void removeQuietly(const std::string& path) noexcept {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

// What is to be removed when a render ends, however it ends.
class Leavings {
public:
    explicit Leavings(std::string part) : part_(std::move(part)) {}
    ~Leavings() {
        removeQuietly(part_);
        for (const std::string& path : cleanup)
            removeQuietly(path);
    }
    Leavings(const Leavings&) = delete;
    Leavings& operator=(const Leavings&) = delete;

    Words cleanup;

private:
    std::string part_;
};

bool isCancel(const ToolError& error) { return error.message() == "cancelled"; }

void append(Words& words, const Words& more) { words.insert(words.end(), more.begin(), more.end()); }

} // namespace

ProxyRenderer::ProxyRenderer(ProxySettings settings, const ClipProbe& probe, Log log,
                             std::vector<EncoderTrial::Decoder> decoders)
    : settings_(std::move(settings)), probe_(probe), log_(log ? std::move(log) : [](std::string_view) {}),
      trial_(probe.tools().ffmpeg.value_or(""), log_, std::move(decoders)) {}

void ProxyRenderer::render(const RenderRequest& request) {
    if (!probe_.tools().ffmpeg)
        throw ToolError("ffmpeg", -1, "not found");
    const auto decoder = hardwareDecode_ && request.clip.format == ClipFormat::video
                             ? trial_.decoder(request.isCancelled)
                             : std::nullopt;
    std::string first;
    bool stalled = false;
    try {
        renderOnce(request, decoder);
        return;
    } catch (const FFmpegStall& stall) {
        if (!decoder)
            throw RenderError(fmt::format("{}; proxy not created", stall.what()));
        first = stall.what();
        stalled = true;
    } catch (const ToolError& error) {
        if (!decoder || isCancel(error))
            throw;
        first = error.what();
    }
    log_(fmt::format("proxy {}: with hardware decoding: {} — retrying in software", request.clip.name, first));
    if (request.onRestart)
        request.onRestart();
    try {
        renderOnce(request, std::nullopt);
        log_(fmt::format("proxy {}: software decoding succeeded", request.clip.name));
    } catch (const FFmpegStall& stall) {
        log_(fmt::format("proxy {}: software decoding failed too: {}", request.clip.name, stall.what()));
        throw ProxyRetryFailed(fmt::format("{}, also with software decoding; proxy not created", stall.what()));
    } catch (const ToolError& error) {
        if (isCancel(error))
            throw;
        log_(fmt::format("proxy {}: software decoding failed too: {}", request.clip.name, error.what()));
        if (stalled)
            throw ProxyRetryFailed(fmt::format("{}; software decoding failed: {}", first, error.what()));
        throw ProxyRetryFailed(fmt::format("{}; earlier with hardware decoding: {}", error.what(), first));
    }
}

FrameSource ProxyRenderer::sourceOf(const RenderRequest& request, const std::optional<std::string>& look,
                                    const std::optional<std::string>& decoder) const {
    if (request.clip.format == ClipFormat::video) {
        FrameSource source;
        source.audioFromInput = true;
        if (decoder)
            append(source.inputArgs, {"-hwaccel", *decoder});
        // A range server counts what is read in one go: short gaps are read through instead of jumped over.
        if (request.input.starts_with("http://"))
            append(source.inputArgs, {"-short_seek_size", "65536", "-i", request.input});
        else
            append(source.inputArgs, {"-i", "file:" + request.input});
        return source;
    }
    const RawBackend* raw = probe_.backend(request.clip.format);
    if (raw == nullptr)
        throw ToolError("ffmpeg", -1, "no decoder");
    FrameRequest frames{request.clip, request.input, request.info, settings_, look, probe_.tools(), tempDir()};
    frames.isCancelled = request.isCancelled;
    if (request.progress)
        frames.progress = [&](double done) { request.progress(bakedShare * std::clamp(done, 0.0, 1.0)); };
    return raw->source(frames);
}

std::string ProxyRenderer::chain(const RenderRequest& request, const FrameSource& source, const VideoEncoder& encoder,
                                 const std::optional<std::string>& lut) {
    FilterGraph::Video video;
    video.alreadyCropped = source.alreadyCropped;
    video.assumesRec709 = request.clip.format == ClipFormat::video && FilterGraph::assumesRec709(request.info);
    if (lut) {
        video.lut = RelativePath::name(*lut);
        video.needsPreMap = FilterGraph::needsPreMap(request.info, source.fullRange, true);
    }
    if (settings_.burnFilename || settings_.burnTimecode) {
        FilterGraph::BurnIn burn;
        burn.font = font();
        if (settings_.burnFilename) {
            const auto write = [&](const std::string& text) {
                const std::string file = newName("label-", ".txt");
                IO::writeFileNew(tempDir() + "/" + file, text);
                return file;
            };
            const std::string text = FilterGraph::label(request.clip.name);
            const std::size_t safe = FilterGraph::safeLetters(settings_.height);
            burn.labelFile = write(text);
            burn.labelLetters = FilterGraph::letters(text);
            if (burn.labelLetters > safe)
                burn.shortFile = write(FilterGraph::label(request.clip.name, safe));
        }
        if (settings_.burnTimecode)
            burn.timecode = timecodeOf(request.info).value_or("");
        burn.rate = request.info.frameRate.value_or(burn.rate);
        video.burnIn = burn;
    }
    video.end = encoder.filterEnd;
    return FilterGraph::video(settings_, video);
}

void ProxyRenderer::renderOnce(const RenderRequest& request, const std::optional<std::string>& decoder) {
    const std::string part = ProxyPaths::part(request.output);
    if (IO::exists(request.output))
        throw RenderError("proxy name taken meanwhile: " + request.output);
    IO::mkdirs(std::string(RelativePath::folder(part)));
    removeQuietly(part);
    Leavings leavings(part);

    const RawBackend* raw = probe_.backend(request.clip.format);
    const bool baked = request.lut.file && raw != nullptr && raw->bakesLook();
    const auto encoder = trial_.encoder(settings_.codec, settings_.height, request.isCancelled);
    // Before the source: a back-end may work on that for an hour.
    const auto look = request.lut.file ? std::optional(prepareLut(request.lut, baked)) : std::nullopt;
    const FrameSource source = sourceOf(request, baked ? look : std::nullopt, decoder);
    leavings.cleanup = source.cleanup;

    Words words = {"-hide_banner", "-loglevel", request.onErrorLine ? "warning" : "error",
                   "-nostats",     "-progress", "pipe:1",
                   "-nostdin",     "-y"};
    append(words, encoder.deviceArgs);
    append(words, source.inputArgs);
    append(words, {"-map", "0:V:0"}); // not the cover picture
    append(words, {"-vf", chain(request, source, encoder, baked ? std::nullopt : look)});
    // Every frame of the source, at its own time.
    append(words, {"-fps_mode", "passthrough"});
    if (!hasForeignClock(request.clip))
        append(words, {"-enc_time_base", "-1"});
    append(words, EncoderArgs::video(encoder, settings_.codec, settings_.bitrateMbps, rateOf(request.info)));
    if (settings_.audio && source.audioFromInput) {
        append(words, {"-map", "0:a?"});
        append(words, EncoderArgs::audio(request.info.audioStreams));
    }
    if (const auto timecode = timecodeOf(request.info))
        append(words, {"-timecode", *timecode});
    if (request.info.reel)
        append(words, {"-metadata:s:v:0", "reel_name=" + *request.info.reel});
    append(words, {"-metadata", "comment=" + ProxyOrigin::text(request.clip, request.info)});
    append(words, {"-map_chapters", "-1", "-movflags", "+faststart", "-f", "mov", "file:" + part});

    FFmpegRun run{*probe_.tools().ffmpeg, words, tempDir(), source.feeder, source.explainFeederError, part,
                  secondsOf(request.info)};
    run.onErrorLine = request.onErrorLine;
    run.onProgressLine = request.onProgressLine;
    run.activity = request.activity;
    run.isCancelled = request.isCancelled;
    run.stallTimeout = stallTimeout;
    run.log = log_;
    const double before = raw != nullptr && !source.feeder ? bakedShare : 0;
    if (request.progress && run.duration > 0)
        run.progress = [&](double seconds) {
            request.progress(before + (1 - before) * std::clamp(seconds / run.duration, 0.0, 1.0));
        };
    run.run();

    if (const auto problem = MovFile::problem(part))
        throw ToolError("ffmpeg", 0, fmt::format("the proxy is not whole: {}", *problem));
    if (request.onWhole)
        request.onWhole(part);
    UncachedWriter(part, UncachedWriter::Open::existing, CacheMode::dropBehind).flush();
    try {
        ProxyCopy::renameNoReplace(part, request.output);
    } catch (const ProxyCopy::Taken&) {
        throw RenderError("proxy name taken meanwhile: " + request.output);
    }
    IO::syncFolder(std::string(RelativePath::folder(part)));
}

std::string ProxyRenderer::prepareLut(const LutUse& lut, bool baked) {
    MutexLock lock(mutex_);
    const std::string key = (baked ? "look " : "lut ") + *lut.file;
    if (const auto known = luts_.find(key); known != luts_.end())
        return known->second;
    std::string path = tempDir() + "/";
    if (!baked)
        path += newName("lut-", ".cube");
    else if (const std::string look = path + "look.cube"; !IO::exists(look))
        path = look;
    else
        path += newName("look-", ".cube");
    if (!LutCatalog::copyCube(*lut.file, path))
        throw RenderError(IO::exists(*lut.file) ? "Not a .cube file that can be used: " + *lut.file
                                                : "LUT not found: " + *lut.file);
    return luts_.emplace(key, path).first->second;
}

// The monospaced font of the desktop, under a name of ours.
std::optional<std::string> ProxyRenderer::font() {
    MutexLock lock(mutex_);
    if (font_)
        return *font_;
    font_.emplace();
    try {
        const auto matcher = ToolSearch::find("fc-match", ToolSearch::searchDirs());
        constexpr double patience = 20; // seconds: a first call may have to read all fonts
        const std::string file =
            matcher ? ToolProcess::run(*matcher, {"--format=%{file}", "monospace"}, {}, patience) : "";
        if (file.starts_with('/') && IO::exists(file)) {
            std::filesystem::create_symlink(file, tempDir() + "/font.ttf");
            *font_ = "font.ttf";
        }
    } catch (const std::exception&) {
        // Said below.
    }
    if (!*font_)
        log_("proxies: no monospaced font found (fontconfig) — no text is drawn into the pictures");
    return *font_;
}

std::string ProxyRenderer::newName(std::string_view kind, std::string_view extension) {
    return fmt::format("{}{}{}", kind, ++names_, extension);
}

} // namespace velmora
