#include "engine/SourceReader.h"

#include "base/Errors.h"
#include "engine/OffloadOptions.h"
#include "engine/SourceCard.h"

#include <chrono>
#include <fmt/format.h>
#include <thread>

namespace velmora {

namespace {

constexpr std::chrono::milliseconds retryPause{250};

} // namespace

SourceReader::SourceReader(const SourceCard& card, const SourceFile& file, const OffloadOptions& options,
                           SourceClock& clock)
    : file_(file), options_(options), clock_(clock), reader_(open(card, file, clock)) {}

UncachedReader SourceReader::open(const SourceCard& card, const SourceFile& file, SourceClock& clock) {
    const SourceClock::Visit visit(clock);
    try {
        return card.open(file.relPath);
    } catch (const IOError& error) {
        throw OffloadError::failed(error.what());
    }
}

std::size_t SourceReader::read(std::span<std::byte> to, std::int64_t offset) {
    const SourceClock::Visit visit(clock_);
    for (std::int64_t attempts = 1;; ++attempts) {
        try {
            return reader_.readAt(to, offset);
        } catch (const IOError& error) {
            if (attempts > options_.readRetries)
                throw OffloadError::failed(fmt::format("{} (after {} retries)", error.what(), options_.readRetries));
        }
        std::this_thread::sleep_for(retryPause);
    }
}

void SourceReader::checkUnchanged(std::int64_t read) const {
    FileFacts facts;
    try {
        facts = reader_.facts();
    } catch (const IOError& error) {
        throw OffloadError::failed(error.what());
    }
    // Where the file grew by whole blocks, the reading ended at its old length.
    const std::int64_t now = read == file_.size ? facts.size : read;
    if (now != file_.size)
        throw OffloadError::failed(fmt::format("source size changed during copy ({} != {})", file_.size, now));
    if (facts.modified != file_.mtime)
        throw OffloadError::failed(fmt::format("source changed during copy (modified {} != {})",
                                               TimeText::iso8601(file_.mtime), TimeText::iso8601(facts.modified)));
}

} // namespace velmora
