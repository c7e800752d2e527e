#include "base/FileTimes.h"

#include "base/Text.h"

#include <limits>

namespace velmora::FileTimes {

namespace {

constexpr std::int64_t nanosPerTick = 100;
constexpr std::uint64_t hour = ticksPerHour;
constexpr std::uint64_t closeTicks = 2 * ticksPerSecond;

// How far the clocks of two time zones may lie apart, and by what steps.
struct Zones {
    std::uint64_t span;
    std::uint64_t step;
};
constexpr Zones wholeHours{14 * hour, hour};
constexpr Zones allZones{26 * hour, hour / 2}; // UTC−12 to UTC+14

std::int64_t ticksOf(std::int64_t seconds, std::int64_t ticksInSecond) {
    std::int64_t result = 0;
    if (__builtin_mul_overflow(seconds, ticksPerSecond, &result) ||
        __builtin_add_overflow(result, epochTicks + ticksInSecond, &result))
        return seconds < 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    return result;
}

// |a - b|, which always fits into the unsigned type.
std::uint64_t distance(std::int64_t a, std::int64_t b) {
    const auto ua = static_cast<std::uint64_t>(a), ub = static_cast<std::uint64_t>(b);
    return a > b ? ua - ub : ub - ua;
}

bool within(std::int64_t a, std::int64_t b, const Zones* zones, std::uint64_t tolerance) {
    const std::uint64_t d = distance(a, b);
    if (d <= tolerance)
        return true;
    if (zones == nullptr || d > zones->span + tolerance)
        return false;
    const std::uint64_t beyond = d % zones->step;
    return beyond <= tolerance || zones->step - beyond <= tolerance;
}

} // namespace

std::int64_t ticks(Timestamp t) { return ticksOf(t.seconds, (t.nanoseconds + nanosPerTick / 2) / nanosPerTick); }

std::int64_t ticksTruncated(Timestamp t) { return ticksOf(t.seconds, t.nanoseconds / nanosPerTick); }

Timestamp date(std::int64_t ticks) {
    std::int64_t seconds = ticks / ticksPerSecond;
    std::int64_t rest = ticks % ticksPerSecond;
    if (rest < 0) {
        --seconds;
        rest += ticksPerSecond;
    }
    return {seconds - epochTicks / ticksPerSecond, static_cast<std::int32_t>(rest * nanosPerTick)};
}

bool same(std::int64_t a, std::int64_t b, bool localTime) { return within(a, b, localTime ? &wholeHours : nullptr, 0); }

bool same(Timestamp a, Timestamp b, bool localTime) { return same(ticks(a), ticks(b), localTime); }

bool close(Timestamp a, Timestamp b, bool localTime) {
    return within(ticks(a), ticks(b), localTime ? &allZones : nullptr, closeTicks);
}

bool storesLocalTime(std::string_view filesystem) {
    const std::string type = toLower(filesystem);
    return type == "msdos" || type == "vfat" || type == "exfat" || type.starts_with("fat");
}

} // namespace velmora::FileTimes
