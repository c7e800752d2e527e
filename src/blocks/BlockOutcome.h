#pragma once

#include <cstdint>

namespace velmora {

// A stretch of a file.
struct ByteRange {
    std::int64_t offset = 0;
    std::int64_t length = 0;

    bool operator==(const ByteRange&) const = default;
};

// What is known of one file on one destination.
struct BlockOutcome {
    enum class Kind {
        mismatch,    // `value` is the lowest block that differs
        sizeDiffers, // `value` is the length on the disk
        verified,    // every block matched
        incomplete,  // some blocks have not been seen
    };
    Kind kind = Kind::incomplete;
    std::int64_t value = 0;

    static BlockOutcome mismatch(std::int64_t block) { return {Kind::mismatch, block}; }
    static BlockOutcome sizeDiffers(std::int64_t onDisk) { return {Kind::sizeDiffers, onDisk}; }
    static BlockOutcome verified() { return {Kind::verified, 0}; }
    static BlockOutcome incomplete() { return {Kind::incomplete, 0}; }

    bool operator==(const BlockOutcome&) const = default;
};

} // namespace velmora
