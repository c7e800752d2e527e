#pragma once

#include "base/Errors.h"
#include "blocks/ReadAhead.h"
#include "records/FileState.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velmora {

// Reads a copied file back from its disk, past the cache, and compares it with what the source gave: the plain way of
// verifying, right after the copy. One pass computes the digests of the file and of its blocks. A digest that differs
// fails the file, whatever a later read gives. When the blocks of the source are known, the wrong ones are read once
// more, to say where the defect is: a block that is wrong again, or one that the disk gives differently each time. Not
// thread-safe: one per disk.
class ReadBack {
public:
    // What the file must be.
    struct Expected {
        std::int64_t size = 0;
        std::optional<std::uint64_t> xxh64;    // of the source
        std::int64_t blockSize = 0;            // 0 or a list of the wrong length: blocks are not known
        std::span<const std::uint64_t> blocks; // of the source
    };
    struct Hooks {
        IsCancelled isCancelled;                          // asked before every read
        std::function<void(std::int64_t bytes)> progress; // after every read
    };
    struct WrongBlock {
        std::int64_t number = 0;
        std::uint64_t hash = 0; // what the disk gave last
        bool changing = false;  // it gave something else the first time
    };
    struct Outcome {
        DestFileResult result;              // verified; failed with its text; written when it was cancelled
        bool throughCache = false;          // the file could not be driven out of memory before it was read
        std::vector<std::int64_t> unstable; // blocks that were wrong and were right the second time
        std::vector<WrongBlock> wrong;      // blocks that were wrong as often as they were read
        std::optional<std::string> xxh128;  // of a file that was verified
    };

    // Reads in pieces of `buffer`, which is page-aligned, a multiple of 4096 long and outlives this object.
    explicit ReadBack(std::span<std::byte> buffer);

    // `relative` is joined to `cardPath` with no link followed. Failures are data: "size mismatch: …",
    // "HASH MISMATCH: …" and "verify: …" stand in the result.
    Outcome verify(const std::string& cardPath, const std::string& relative, const Expected& expected,
                   const Hooks& hooks);

private:
    std::span<std::byte> buffer_;
    ReadAhead reader_;
};

} // namespace velmora
