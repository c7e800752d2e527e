#include "records/Timecode.h"

#include "base/Text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fmt/format.h>

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

constexpr double highestRate = 1'000'000; // beyond what any camera does; bounds the arithmetic

// Frames as the timecode counts them in a second.
std::int64_t nominal(double fps) noexcept {
    return fps >= 1 && fps <= highestRate ? std::llround(fps) : fps > highestRate ? std::llround(highestRate) : 1;
}

// How many names are dropped at a minute.
std::int64_t droppedPerMinute(std::int64_t rate) noexcept { return rate / 15; }

std::int64_t framesPerDay(std::int64_t rate, bool dropFrame) noexcept {
    constexpr std::int64_t secondsPerDay = 86400;
    constexpr std::int64_t droppingMinutes = 24 * 54; // all but every tenth
    return rate * secondsPerDay - (dropFrame ? droppedPerMinute(rate) * droppingMinutes : 0);
}

// The number under which a frame goes when names are dropped before it.
std::int64_t withDroppedNames(std::int64_t frames, std::int64_t rate) noexcept {
    const std::int64_t dropped = droppedPerMinute(rate);
    const std::int64_t perTenMinutes = rate * 600 - 9 * dropped;
    const std::int64_t perMinute = rate * 60 - dropped;
    const std::int64_t tens = frames / perTenMinutes;
    const std::int64_t rest = frames % perTenMinutes;
    // The first minute of ten has all its names.
    const std::int64_t further = rest < rate * 60 ? 0 : (rest - dropped) / perMinute;
    return frames + dropped * (9 * tens + further);
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

bool isValid(std::string_view timecode) noexcept {
    constexpr std::string_view form = "dd:dd:ddsdd";
    if (timecode.size() != form.size())
        return false;
    for (std::size_t i = 0; i < form.size(); ++i) {
        const char c = timecode[i];
        const bool fits = form[i] == 'd'   ? c >= '0' && c <= '9'
                          : form[i] == 's' ? c == ':' || c == ';' || c == '.'
                                           : c == form[i];
        if (!fits)
            return false;
    }
    return true;
}

bool isDropFrame(std::string_view timecode, double fps) noexcept {
    const std::int64_t rate = nominal(fps);
    return isValid(timecode) && timecode[8] == ';' && (rate == 30 || rate == 60) &&
           std::abs(fps - static_cast<double>(rate)) > 0.001;
}

std::optional<std::int64_t> toFrames(std::string_view timecode, double fps) noexcept {
    if (!isValid(timecode))
        return std::nullopt;
    const auto field = [&](std::size_t at) { return (timecode[at] - '0') * 10 + (timecode[at + 1] - '0'); };
    const std::int64_t rate = nominal(fps);
    const std::int64_t minutes = field(0) * 60 + field(3);
    const std::int64_t frames = (minutes * 60 + field(6)) * rate + field(9);
    return isDropFrame(timecode, fps) ? frames - droppedPerMinute(rate) * (minutes - minutes / 10) : frames;
}

std::string fromFrames(std::int64_t frames, double fps, bool dropFrame, char separator) {
    constexpr std::int64_t most = 1'000'000'000'000'000; // leaves room for the dropped names
    const std::int64_t rate = nominal(fps);
    frames = std::clamp<std::int64_t>(frames, 0, most);
    const std::int64_t number = dropFrame ? withDroppedNames(frames, rate) : frames;
    const std::int64_t seconds = number / rate;
    return fmt::format("{:02}:{:02}:{:02}{}{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60, separator,
                       number % rate);
}

std::optional<std::string> add(std::string_view timecode, std::int64_t frames, double fps) {
    const auto start = toFrames(timecode, fps);
    if (!start)
        return std::nullopt;
    const bool dropFrame = isDropFrame(timecode, fps);
    const std::int64_t day = framesPerDay(nominal(fps), dropFrame);
    const std::int64_t frame = (*start % day + frames % day + day) % day;
    return fromFrames(frame, fps, dropFrame, timecode[8]);
}

std::string length(std::int64_t frames, double fps) { return fromFrames(frames, fps, false, ':'); }

} // namespace velmora::Timecode
