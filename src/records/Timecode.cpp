#include "records/Timecode.h"

#include "base/Text.h"

#include <charconv>
#include <cmath>
#include <string>

namespace velmora::Timecode {

namespace {

std::optional<double> number(std::string_view text) {
    if (text.starts_with('+'))
        text.remove_prefix(1);
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

} // namespace

std::optional<double> fps(std::string_view text) {
    const std::string trimmed = trim(text);
    const std::size_t slash = trimmed.find('/');
    if (slash == std::string::npos)
        return number(trimmed);
    const auto over = number(std::string_view(trimmed).substr(0, slash));
    const auto under = number(std::string_view(trimmed).substr(slash + 1));
    if (!over || !under || *under == 0 || !std::isfinite(*over / *under))
        return std::nullopt;
    return *over / *under;
}

} // namespace velmora::Timecode
