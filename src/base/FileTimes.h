#pragma once

#include "base/Timestamp.h"

#include <cstdint>
#include <string_view>

namespace velmora {

// File times as whole 100-nanosecond ticks since 0001-01-01. Moments that ticks cannot hold stay at the nearest end.
namespace FileTimes {

inline constexpr std::int64_t ticksPerSecond = 10'000'000;
inline constexpr std::int64_t ticksPerHour = 3600 * ticksPerSecond;
inline constexpr std::int64_t epochTicks = 621'355'968'000'000'000; // 1970-01-01

std::int64_t ticks(Timestamp t);          // rounded to the nearest tick
std::int64_t ticksTruncated(Timestamp t); // nanoseconds / 100 cut off: the form that scans and file lists hold
Timestamp date(std::int64_t ticks);

// The same moment to the tick. With `localTime` (a file system that stores local time) also moments that differ by
// whole hours, at most 14, in either direction.
bool same(std::int64_t a, std::int64_t b, bool localTime);
bool same(Timestamp a, Timestamp b, bool localTime);
// Give or take two seconds: for times that a record or a file system has cut or rounded. With `localTime` also moments
// that lie as far apart as the clocks of two time zones may: by half hours, at most 26 hours.
bool close(Timestamp a, Timestamp b, bool localTime);

// True for the FAT family with exFAT, which stores local time, in any case of its names.
bool storesLocalTime(std::string_view filesystem);

} // namespace FileTimes

} // namespace velmora
