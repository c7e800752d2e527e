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

std::string number(double value) { return fmt::format("{}", value); }

void add(std::string& chain, std::string_view filter) {
    if (filter.empty())
        return;
    if (!chain.empty())
        chain += ',';
    chain += filter;
}

// The size of the name's letters. A name that leaves no room for the timecode in a picture as narrow as cameras make
// them gets smaller letters in such a picture; only ffmpeg knows how wide it is, once it has turned it upright.
std::string labelSize(std::size_t letters, std::int64_t size, std::int64_t margin, std::int64_t height) {
    const double rest = timecodeLetters * letterWidth * static_cast<double>(size) + 3 * static_cast<double>(margin);
    const double perLetter = static_cast<double>(std::max<std::size_t>(letters, 1)) * letterWidth;
    constexpr double narrowest = 9.0 / 16;
    if (perLetter * static_cast<double>(size) + rest <= static_cast<double>(height) * narrowest)
        return std::to_string(size);
    return fmt::format("'max(8,min({},(w-{:.0f})/{:.2f}))'", size, rest, perLetter);
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
    const std::int64_t size = 3 * height < 1200 ? 12 : 3 * height / 100;
    const std::int64_t margin = height < 400 ? 8 : height / 50;
    std::string chain = fmt::format("drawbox=x=0:y=ih-{0}:w=iw:h={0}:color=black@0.55:t=fill", 2 * size);
    if (!burnIn.font)
        return chain;
    // Letters stand in the middle of the strip: the height of a capital is about 0.72 of the size.
    const std::string line = fmt::format("drawtext=fontfile={}:fontcolor=white", *burnIn.font);
    if (burnIn.labelFile)
        add(chain, fmt::format("{}:fontsize={}:y=h-{}-th/2:textfile={}:expansion=none:x={}", line,
                               labelSize(burnIn.labelLetters, size, margin, height), size, *burnIn.labelFile, margin));
    if (burnIn.timecode) {
        const std::string& tc = *burnIn.timecode;
        add(chain, fmt::format("{}:fontsize={}:y=h-{}-th/2:timecode='{}':rate={}:x=w-tw-{}", line, size, size,
                               replaceAll(Timecode::isValid(tc) ? std::string_view(tc) : noTimecode, ":", "\\:"),
                               burnIn.rate, margin));
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

std::string label(std::string_view clipName) {
    const std::string text = isRecordableName(clipName) ? std::string(clipName) : escapeForDisplay(clipName);
    constexpr std::size_t most = 64; // bytes
    if (text.size() <= most)
        return text;
    std::size_t tail = text.size() - most / 2;
    while (tail < text.size() && (static_cast<unsigned char>(text[tail]) & 0xC0U) == 0x80U)
        ++tail;
    return std::string(cutUtf8(text, most / 2)) + "…" + text.substr(tail);
}

std::size_t letters(std::string_view label) {
    return static_cast<std::size_t>(
        std::ranges::count_if(label, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

} // namespace velmora::FilterGraph
