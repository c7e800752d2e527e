#pragma once

#include "engine/SourceClock.h"
#include "platform/File.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace velmora {

class SourceCard;
struct OffloadOptions;

// Reads one file of a card that is held, past the cache, following no link. A block that cannot be read is tried again
// after a quarter of a second, since a bad contact often recovers. Every failure is thrown as OffloadError with the
// sentence that stands as the file's source error in the report.
class SourceReader {
public:
    SourceReader(const SourceCard& card, const SourceFile& file, const OffloadOptions& options, SourceClock& clock);

    // Fills `to` from `offset`; 0 at the end of the file.
    std::size_t read(std::span<std::byte> to, std::int64_t offset);
    // Throws unless the file is still what the scan saw and `read` bytes are all of it.
    void checkUnchanged(std::int64_t read) const;

private:
    static UncachedReader open(const SourceCard& card, const SourceFile& file, SourceClock& clock);

    const SourceFile& file_;
    const OffloadOptions& options_;
    SourceClock& clock_;
    UncachedReader reader_;
};

} // namespace velmora
