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

// Compares every block that the checkpoint names with the part files of all destinations that need the file. The blocks
// of one of them go through the hasher as well, which must have begun: its digest is then that of a card that was read
// from the start. Returns the offset to go on from. None when anything does not fit: then the hasher has been aborted,
// and the file is copied from its first byte.
// Throws Cancelled.
struct Hooks {
    IsCancelled isCancelled;                          // asked before every read; may hold a pause
    std::function<void(std::int64_t bytes)> progress; // after every read
};
std::optional<std::int64_t> verify(const SourceFile& file, const PartCheckpoint& checkpoint, std::int64_t blockSize,
                                   std::span<const std::string> cardPaths, SourceHasher& hasher, BufferPool& pool,
                                   const Hooks& hooks);

} // namespace PartResume

} // namespace velmora
