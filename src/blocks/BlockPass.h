#pragma once

#include "blocks/BlockReads.h"
#include "platform/File.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace velmora {

class BlockVerifier;
struct BlockManifest;

// One walk over the blocks that a verifier has not verified. Reads past the cache start and end on multiples of 4096;
// the block size of a record that was found on a disk may be any number, and then a block is read in the window of
// whole pages around it.
namespace BlockPass {

// Buffer size for one block and its window. Throws IOError("read", path, EFBIG) above `BlockReads::maxBlock`.
std::size_t bufferBytes(std::int64_t blockSize, std::int64_t fileSize, const std::string& path);

// Reads up to `length` bytes at `offset`; fewer at the end of the file.
std::span<const std::byte> readWindow(UncachedReader& file, std::span<std::byte> buffer, std::int64_t offset,
                                      std::int64_t length);

// Feeds what is missing now, block by block. Returns whether anything was read. Throws Cancelled and IOError.
bool run(UncachedReader& file, std::span<std::byte> buffer, BlockVerifier& verifier, const BlockReads::Hooks& hooks);

} // namespace BlockPass

} // namespace velmora
