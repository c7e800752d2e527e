#pragma once

#include "base/Errors.h"
#include "engine/BufferPool.h"
#include "records/ManifestRecord.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace velmora {

class SourceHasher;

// Continuing a half-written file.
namespace PartResume {

// What `verify` does: it compares every block of the checkpoint with the part files of all destinations that
// need the file. It also hashes the blocks of one of them with `hasher`, which must have begun: so the digest is
// that of a file that was read from the start. It returns the offset to go on from. It returns none when
// anything does not match: then it has aborted the hasher, and the file is copied from its first byte. It throws
// Cancelled.
struct Hooks {
    IsCancelled isCancelled;                          // asked before every read; may hold a pause
    std::function<void(std::int64_t bytes)> progress; // after every read
};
std::optional<std::int64_t> verify(const SourceFile& file, const PartCheckpoint& checkpoint, std::int64_t blockSize,
                                   std::span<const std::string> cardPaths, SourceHasher& hasher, BufferPool& pool,
                                   const Hooks& hooks);

} // namespace PartResume

} // namespace velmora
