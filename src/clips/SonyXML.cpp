#include "clips/SonyXML.h"

#include "base/Errors.h"
#include "base/XmlParser.h"
#include "platform/IO.h"
#include "records/FrameRate.h"
#include "records/Timecode.h"

namespace velmora::SonyXML {

namespace {

constexpr std::int64_t longestSidecar = 8 << 20; // with the data of lens and gyroscope they reach some hundred kB

// "59.94p", "50i".
std::optional<std::string> rateOf(std::string_view text) {
    const bool fields = text.ends_with('i');
    if (fields || text.ends_with('p'))
        text.remove_suffix(1);
    const auto rate = Timecode::fps(text);
    return rate && *rate > 0 ? std::optional(FrameRate::rational(fields ? *rate / 2 : *rate)) : std::nullopt;
}

// Elements go by their names alone: the namespace changes with the model.
class Handler final : public XmlHandler {
public:
    void open(const XmlElement& element) override {
        if (element.name == "VideoFrame" && !videoFrameSeen_) {
            videoFrameSeen_ = true;
            if (const char* rate = element.attribute("captureFps"))
                found.captureFrameRate = rateOf(rate);
        }
        const char* name = element.name == "Item" ? element.attribute("name") : nullptr;
        const char* value = name ? element.attribute("value") : nullptr;
        if (!value)
            return;
        if (name == std::string_view("CaptureGammaEquation"))
            found.picture.gamma = value;
        else if (name == std::string_view("CaptureColorPrimaries"))
            found.picture.gamut = value;
    }
    void text(std::string_view) override {}
    void close() override {}

    Sidecar found;

private:
    bool videoFrameSeen_ = false;
};

} // namespace

std::string sidecarOf(const std::string& clipPath) {
    const std::size_t name = clipPath.rfind('/') + 1; // 0 without a folder
    const std::size_t dot = clipPath.rfind('.');
    return clipPath.substr(0, dot == std::string::npos || dot <= name ? clipPath.size() : dot) + "M01.XML";
}

Sidecar parse(std::string_view text) noexcept {
    Handler handler;
    try {
        XmlParser parser(handler);
        parser.feed(text);
        parser.finish();
    } catch (const std::exception&) { // a card written by a camera that lost its power
    }
    return handler.found;
}

Sidecar load(const std::string& clipPath) noexcept {
    try {
        return parse(IO::readFile(sidecarOf(clipPath), longestSidecar));
    } catch (const std::exception&) { // mostly there is none
        return {};
    }
}

std::optional<std::string> captureFrameRate(const std::string& clipPath) { return load(clipPath).captureFrameRate; }
Picture read(const std::string& clipPath) { return load(clipPath).picture; }

} // namespace velmora::SonyXML
