#include "proxies/FilterGraph.h"

#include "base/Text.h"
#include "proxies/FrameLines.h"
#include "records/Timecode.h"

#include <algorithm>
#include <fmt/format.h>
#include <vector>

namespace velmora::FilterGraph {

namespace {

constexpr std::string_view noTimecode = "00:00:00:00";
constexpr double letterWidth = 0.61; // of a monospaced letter, in font sizes; a little more than fonts have
constexpr double timecodeLetters = 11;
constexpr const char* rec709 = "setparams=colorspace=bt709";

// ffmpeg counts no timecode that is slower than one frame a second, and fails at it.
std::string timecodeRate(const std::string& rate) {
    const double fps = Timecode::fps(rate).value_or(0);
    return fps >= slowestTimecode ? rate : fps > 0 ? "1" : BurnIn().rate;
}

std::string number(double value) { return fmt::format("{}", value); }

bool startsLetter(char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }

void add(std::string& chain, std::string_view filter) {
    if (filter.empty())
        return;
    if (!chain.empty())
        chain += ',';
    chain += filter;
}

struct Sizes {
    std::int64_t letter, margin;
};
Sizes sizesFor(std::int64_t height) {
    return {3 * height < 1200 ? 12 : 3 * height / 100, height < 400 ? 8 : height / 50};
}

// The width of a picture in which so many letters of a name stand beside the timecode.
double widthFor(std::size_t letters, const Sizes& sizes) {
    return (timecodeLetters + static_cast<double>(letters)) * letterWidth * static_cast<double>(sizes.letter) +
           3 * static_cast<double>(sizes.margin);
}

} // namespace

std::string crop(const ProxySettings& settings) {
    if (!settings.frameAspect || !(*settings.frameAspect > 0))
        return {};
    const std::string a = number(*settings.frameAspect);
    const std::string s = number(FrameLines::scale(settings));
    return fmt::format("crop=w='trunc(min(iw*{0},ih*{0}*{1})/2)*2':h='trunc(min(iw*{0}/{1},ih*{0})/2)*2'", s, a);
}

std::string scale(std::int64_t height) {
    // For square pixels this is the even width that "-2" stands for.
    return fmt::format("scale=2*round({0}*dar/2):{0}:flags=bicubic,setsar=1", height);
}

std::string lut(std::string_view lut, bool needsPreMap) {
    std::string chain;
    if (needsPreMap) {
        constexpr std::string_view map = "'clip((val*1023/65535-64)/876*65535,0,65535)'";
        chain = fmt::format("lutrgb=r={0}:g={0}:b={0},", map);
    }
    return chain + fmt::format("format=rgb48le,lut3d=file={}:interp=tetrahedral", lut);
}

bool needsPreMap(const ClipInfo& info, bool fullRangeSource, bool hasLut) {
    return hasLut && (fullRangeSource || info.colorRange == "pc");
}

bool assumesRec709(const ClipInfo& info) {
    constexpr std::int64_t highDefinition = 720; // lines
    return info.colorMatrix.value_or("unknown") == "unknown" && info.height.value_or(0) >= highDefinition;
}

std::string burnIn(const BurnIn& burnIn, std::int64_t height) {
    const auto [size, margin] = sizesFor(height);
    std::string chain = fmt::format("drawbox=x=0:y=ih-{0}:w=iw:h={0}:color=black@0.55:t=fill", 2 * size);
    if (!burnIn.font)
        return chain;
    // One base line for both, so that capitals and digits stand in the middle of the strip.
    const std::string line = fmt::format("drawtext=fontfile={}:fontcolor=white:fontsize={}:y=h-{}-ascent", *burnIn.font,
                                         size, size * 16 / 25);
    const auto addLabel = [&](const std::string& file, std::string_view alpha) {
        add(chain, fmt::format("{}:textfile={}:expansion=none:x={}{}", line, file, margin, alpha));
    };
    if (burnIn.labelFile && burnIn.shortFile) {
        // Only ffmpeg knows how wide the picture is, once it has turned it upright.
        const double width = widthFor(burnIn.labelLetters, {size, margin});
        addLabel(*burnIn.labelFile, fmt::format(":alpha='gte(w,{:.0f})'", width));
        addLabel(*burnIn.shortFile, fmt::format(":alpha='lt(w,{:.0f})'", width));
    } else if (burnIn.labelFile) {
        addLabel(*burnIn.labelFile, "");
    }
    if (burnIn.timecode) {
        const std::string& tc = *burnIn.timecode;
        add(chain, fmt::format("{}:timecode='{}':rate={}:x=w-tw-{}", line,
                               replaceAll(Timecode::isValid(tc) ? std::string_view(tc) : noTimecode, ":", "\\:"),
                               timecodeRate(burnIn.rate), margin));
    }
    return chain;
}

std::string video(const ProxySettings& settings, const Video& video) {
    std::string chain = video.assumesRec709 ? rec709 : "";
    if (!video.alreadyCropped)
        add(chain, crop(settings));
    add(chain, scale(settings.height));
    if (video.lut)
        add(chain, lut(*video.lut, video.needsPreMap));
    add(chain, "scale=out_color_matrix=bt709:out_range=tv");
    const bool eightBit = settings.codec == ProxyCodec::h264 || settings.codec == ProxyCodec::hevc;
    add(chain, eightBit ? "format=yuv420p" : "format=yuv422p10le");
    if (video.burnIn)
        add(chain, burnIn(*video.burnIn, settings.height));
    add(chain, "setparams=color_primaries=bt709:color_trc=bt709");
    add(chain, video.end);
    return chain;
}

std::string thumbnail(const std::optional<std::string>& lutFile, bool needsPreMap, bool assumesRec709) {
    constexpr std::int64_t lines = 180;
    std::string chain = assumesRec709 ? rec709 : "";
    add(chain, scale(lines));
    if (lutFile)
        add(chain, lut(*lutFile, needsPreMap));
    return chain;
}

std::size_t safeLetters(std::int64_t height) {
    constexpr double narrowest = 9.0 / 16;
    const Sizes sizes = sizesFor(height);
    const double room = static_cast<double>(height) * narrowest - widthFor(0, sizes);
    return static_cast<std::size_t>(std::max(3.0, room / (letterWidth * static_cast<double>(sizes.letter))));
}

std::string label(std::string_view clipName, std::size_t most) {
    const std::string text = isRecordableName(clipName) ? std::string(clipName) : escapeForDisplay(clipName);
    const std::size_t count = letters(text);
    if (count <= most)
        return text;
    std::string cut;
    std::size_t letter = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        letter += startsLetter(text[i]) ? 1 : 0;
        if (letter == most / 2 + 1 && startsLetter(text[i]))
            cut += "…";
        if (letter <= most / 2 || letter > count - (most - 1 - most / 2))
            cut += text[i];
    }
    return cut;
}

std::size_t letters(std::string_view label) {
    return static_cast<std::size_t>(std::ranges::count_if(label, startsLetter));
}

} // namespace velmora::FilterGraph
