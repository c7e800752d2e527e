#include "proxies/Thumbnails.h"

#include "base/Text.h"
#include "clips/ContentCheck.h"
#include "clips/FramePositions.h"
#include "platform/IO.h"
#include "proxies/ClipProbe.h"
#include "proxies/FFmpegRun.h"
#include "proxies/FilterGraph.h"
#include "proxies/LutCatalog.h"
#include "proxies/ToolProcess.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>

namespace velmora {

namespace {

constexpr double patience = 60; // seconds for one picture
constexpr std::int64_t largestPicture = 8 << 20;

using Words = std::vector<std::string>;

void append(Words& words, Words more) { words.insert(words.end(), more.begin(), more.end()); }

// A transport stream has no index: a seek lands between two key frames, and what follows up to the next one cannot be
// decoded. There the decoder starts so many seconds earlier.
double leadOf(const std::string& path) {
    const std::string lower = toLower(path);
    return lower.ends_with(".mts") || lower.ends_with(".m2ts") ? 2.0 : 0.0;
}

void appendSeek(Words& words, double seconds) {
    if (seconds > 0)
        append(words, {"-ss", fmt::format("{:.6f}", seconds)});
}

// One picture of the first stream that is no cover.
void appendPicture(Words& words, const std::string& filter, const std::string& output) {
    append(words, {"-map", "0:V:0", "-vf", filter, "-frames:v", "1", "-c:v", "mjpeg", "-q:v", "4", "-f", "image2pipe",
                   output});
}

} // namespace

std::vector<Thumbnail> Thumbnails::of(const Clip& clip, const std::string& cardPath, const ClipInfo& info,
                                      const LutUse& lut, const IsCancelled& isCancelled) {
    std::vector<Thumbnail> pictures;
    if (!probe_.tools().ffmpeg || !info.width)
        return pictures;
    for (const FramePosition& position : FramePositions::of(info)) {
        try {
            Thumbnail picture;
            picture.jpeg = snapshot(clip, ClipProbe::pathOf(clip, cardPath), info, lut,
                                    FramePositions::seekSeconds(position, info), isCancelled);
            picture.label = ContentCheck::timecodeAt(position.frame, info).value_or("");
            if (!picture.jpeg.empty()) // a file that is shorter than it says has no frame there
                pictures.push_back(std::move(picture));
        } catch (const std::exception&) {
            if (isCancelled && isCancelled())
                throw Cancelled();
            if (clip.format != ClipFormat::video)
                break; // the next one would fail as well, and takes long
        }
    }
    return pictures;
}

std::string Thumbnails::snapshot(const Clip& clip, const std::string& clipPath, const ClipInfo& info, const LutUse& lut,
                                 double seconds, const IsCancelled& isCancelled) {
    if (const RawBackend* backend = probe_.backend(clip.format))
        return rawFrame(*backend, clip, clipPath, info, lut, seconds, isCancelled);
    const auto name = lutName(lut);
    // One thread: several pictures are taken at a time, and the start of more threads takes longer than a frame.
    Words words = {"-hide_banner", "-loglevel", "error", "-nostdin", "-threads", "1"};
    const double from = std::max(0.0, seconds - leadOf(clipPath));
    appendSeek(words, from);
    append(words, {"-i", clipPath});
    appendSeek(words, seconds - from);
    appendPicture(words,
                  FilterGraph::thumbnail(name, FilterGraph::needsPreMap(info, false, name.has_value()),
                                         FilterGraph::assumesRec709(info)),
                  "-");
    ChildProcess::Options options = ToolProcess::options(*probe_.tools().ffmpeg, std::move(words), folder_.path());
    options.outputLimit = largestPicture;
    return ChildProcess::run(std::move(options), patience, isCancelled);
}

std::string Thumbnails::rawFrame(const RawBackend& backend, const Clip& clip, const std::string& clipPath,
                                 const ClipInfo& info, const LutUse& lut, double seconds,
                                 const IsCancelled& isCancelled) {
    ProxySettings settings;
    settings.height = 180;
    std::optional<std::string> name = lutName(lut);
    const bool baked = name && backend.bakesLook();
    FrameRequest request{clip, clipPath, info, settings, {}, probe_.tools(), folder_.path()};
    if (baked)
        request.look = folder_.path() + "/" + *name;
    request.singleFrameAt = seconds;
    request.isCancelled = isCancelled;
    const FrameSource source = backend.source(request);
    if (baked)
        name.reset();
    const std::string picture = fmt::format("{}/picture-{}.jpg", folder_.path(), ++pictures_);
    Words words = {"-hide_banner", "-loglevel", "error", "-nostats", "-progress", "pipe:1", "-y"};
    append(words, source.inputArgs);
    appendPicture(words,
                  FilterGraph::thumbnail(name, FilterGraph::needsPreMap(info, source.fullRange, name.has_value())),
                  "file:" + picture);
    FFmpegRun run{*probe_.tools().ffmpeg, words, folder_.path(), source.feeder, source.explainFeederError, picture};
    run.isCancelled = isCancelled;
    run.stallTimeout = patience;
    run.run();
    const std::string jpeg = IO::readFile(picture, largestPicture);
    for (const std::string& path : source.cleanup) {
        std::error_code ignored; // the folder goes as a whole
        std::filesystem::remove_all(path, ignored);
    }
    IO::unlink(picture);
    return jpeg;
}

std::optional<std::string> Thumbnails::lutName(const LutUse& lut) {
    if (!lut.file)
        return std::nullopt;
    MutexLock lock(mutex_);
    const auto [known, isNew] = luts_.try_emplace(*lut.file, fmt::format("lut-{}.cube", luts_.size() + 1));
    if (isNew)
        LutCatalog::copyCube(*lut.file, folder_.path() + "/" + known->second);
    return known->second;
}

} // namespace velmora
