#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The sidecar that Sony cameras write beside a clip: XM01.XML beside X.MXF or X.MP4. A sidecar that is missing, too
// long or no XML tells nothing; if its XML is broken, what stands before the fault counts. Nothing here throws.
namespace SonyXML {

struct Picture {
    std::optional<std::string> gamma; // "s-log3-cine"
    std::optional<std::string> gamut; // "s-gamut3-cine"
    bool operator==(const Picture&) const = default;
};

std::string sidecarOf(const std::string& clipPath);

// The rate of the sensor. Interlaced cameras state fields, of which two make a frame.
std::optional<std::string> captureFrameRate(const std::string& clipPath);
Picture read(const std::string& clipPath);

// Both at once, of the text of a sidecar.
struct Sidecar {
    Picture picture;
    std::optional<std::string> captureFrameRate;
    bool operator==(const Sidecar&) const = default;
};
Sidecar parse(std::string_view text) noexcept;
Sidecar load(const std::string& clipPath) noexcept;

} // namespace SonyXML

} // namespace velmora
