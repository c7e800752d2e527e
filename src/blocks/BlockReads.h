#pragma once

#include "base/Errors.h"
#include "blocks/BlockOutcome.h"
#include "platform/File.h"
#include "records/FileState.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace velmora {

class BlockVerifier;

// Reads from a disk what a verifier has not seen yet.
namespace BlockReads {

// The largest block that is read in one piece. No copy uses larger ones. A record may claim more, but no memory is
// allocated for it.
inline constexpr std::int64_t maxBlock = std::int64_t{1} << 30;

struct Hooks {
    std::function<bool()> beforeBlock;                // false stops
    IsCancelled isCancelled;                          // true stops
    std::function<void(std::int64_t bytes)> progress; // bytes just read
};

struct Completed {
    BlockOutcome outcome;
    bool throughCache = false; // blocks were read although the file could not be driven out of memory
};

// Reads the blocks that `verifier` has not verified, past the cache, and once more those that do not match. One buffer
// of one block is used. A file that is verified already is not even opened. Throws IOError("open", "stat", "read") and
// Cancelled.
Completed complete(const std::string& path, BlockVerifier& verifier, const Hooks& hooks);
// The same below a card folder, following no link anywhere; for a `relative` that came from a record on a disk.
Completed complete(const std::string& cardPath, const std::string& relative, BlockVerifier& verifier,
                   const Hooks& hooks);

// What the outcome means for the file, with the words of a failure.
DestFileResult result(const BlockVerifier& verifier, const BlockOutcome& outcome);

// Reads one block of the card's file that `open` gives and returns its hash; absent when it cannot be read.
std::optional<std::uint64_t> readCardBlock(const std::function<UncachedReader()>& open, std::int64_t block,
                                           std::int64_t blockSize);

} // namespace BlockReads

} // namespace velmora
