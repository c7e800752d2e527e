#include "engine/PartResume.h"

#include "base/Errors.h"
#include "blocks/HashStreams.h"
#include "engine/DestWriter.h"
#include "engine/SourceHasher.h"

namespace velmora::PartResume {

namespace {

// With a hasher, the very bytes that were compared go into it.
bool partHolds(const std::string& cardPath, const SourceFile& file, const PartCheckpoint& checkpoint, BufferPool& pool,
               SourceHasher* hasher, const Hooks& hooks) try {
    UncachedReader part = UncachedReader::beneath(cardPath, DestWriter::partName(file.relPath));
    // What lies behind the end of the file would stay there.
    if (part.facts().size > file.size)
        return false;
    std::int64_t offset = 0;
    for (const std::uint64_t expected : checkpoint.blocks) {
        if (hooks.isCancelled())
            throw Cancelled();
        Chunk& chunk = pool.take();
        std::size_t got = 0;
        try {
            got = part.readAt(chunk.memory(), offset);
        } catch (...) {
            chunk.release();
            throw;
        }
        chunk.set(offset, got);
        hooks.progress(static_cast<std::int64_t>(got));
        if (got != static_cast<std::size_t>(checkpoint.blockSize) ||
            blockHash(chunk.bytes().data(), chunk.bytes().size()) != expected) {
            chunk.release();
            return false;
        }
        if (hasher != nullptr)
            hasher->update(chunk); // releases it
        else
            chunk.release();
        offset += checkpoint.blockSize;
    }
    return true;
} catch (const IOError&) {
    return false;
}

} // namespace

std::optional<std::int64_t> verify(const SourceFile& file, const PartCheckpoint& checkpoint, std::int64_t blockSize,
                                   std::span<const std::string> cardPaths, SourceHasher& hasher, BufferPool& pool,
                                   const Hooks& hooks) {
    const auto count = static_cast<std::int64_t>(checkpoint.blocks.size());
    bool fits = checkpoint.blockSize == blockSize && count > 0 && count <= file.size / blockSize &&
                checkpoint.size == file.size && !cardPaths.empty();
    for (std::size_t d = cardPaths.size(); fits && d-- > 0;)
        fits = partHolds(cardPaths[d], file, checkpoint, pool, d == 0 ? &hasher : nullptr, hooks);
    if (fits)
        return count * blockSize;
    hasher.abort();
    return std::nullopt;
}

} // namespace velmora::PartResume
