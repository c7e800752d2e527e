#pragma once

#include <cstdint>

namespace velmora::RecordLimits {

// What a number of a record may be at most. A record comes from a disk that anybody may have written: a number above
// these is no mistake of a camera or a tool, and sums of numbers below them fit into 64 bits.
inline constexpr std::int64_t generation = 999'999'999;               // as long as the number of a file name may be
inline constexpr std::int64_t fileSize = std::int64_t{1} << 50;       // of one file
inline constexpr std::int64_t bytesOfOneList = std::int64_t{1} << 56; // of all files of a report or a list

} // namespace velmora::RecordLimits
