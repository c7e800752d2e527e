#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// A moment, counted from 1970-01-01T00:00:00Z. `nanoseconds` is always 0 … 999,999,999; moments before 1970 have
// negative seconds and count nanoseconds upward from them, as struct timespec does.
struct Timestamp {
    std::int64_t seconds = 0;
    std::int32_t nanoseconds = 0;

    auto operator<=>(const Timestamp&) const = default;

    static Timestamp now();
    Timestamp floorToSecond() const { return {seconds, 0}; }
};

// Difference in seconds, b - a.
double secondsBetween(Timestamp a, Timestamp b);

namespace TimeText {

// "2026-03-14T08:30:05Z": UTC, to the second (ISO 8601).
std::string iso8601(Timestamp t);
// Takes "Z", "+hh:mm", "+hhmm", no zone (read as UTC) and fractions of a second.
std::optional<Timestamp> parseIso8601(std::string_view text);
// "2026-03-14T09:30:05+01:00" in the computer's time zone.
std::string iso8601Local(Timestamp t);
// strftime patterns in the C locale, in UTC or in the computer's time zone.
std::string utc(Timestamp t, const char* pattern);
std::string local(Timestamp t, const char* pattern);

} // namespace TimeText

} // namespace velmora
