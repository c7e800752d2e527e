#include "engine/CopyRun.h"

#include "blocks/BlockReads.h"
#include "engine/OffloadEngine.h"
#include "engine/ReportBuilder.h"
#include "records/OffloadPlan.h"

#include <fmt/format.h>

#include <exception>

// What comes behind the last block: flush, read-back, report.
namespace velmora {

namespace {

double seconds(std::int64_t nanos) { return static_cast<double>(nanos) / 1e9; }

} // namespace

void CopyRun::keepTimes(std::int64_t began) {
    hasher_.wait();
    drainAll();
    const std::int64_t now = monotonicNanos();
    CopyTimes& times = engine_.copyTimes_;
    times.wall = seconds(now - began);
    times.readingSource = seconds(sourceClock_.at(now)) - (engine_.pauses_.pausedTotal() - pausedBefore_);
    times.read = readBytes_.value();
    times.waitingForBuffers = seconds(waitedNanos_);
    for (const auto& writer : writers_) {
        times.destinations.emplace_back();
        engine_.writeRates_.push_back(0);
        if (!writer)
            continue;
        times.destinations.back() = {seconds(writer->busyNanos()), writer->written(), seconds(writer->idleNanos()),
                                     seconds(writer->needlesslyIdleNanos())};
        if (writer->busyNanos() > 0)
            engine_.writeRates_.back() = static_cast<double>(writer->written()) / seconds(writer->busyNanos());
    }
}

// All destinations at once: each on its own queue.
void CopyRun::flush() {
    for (const auto& writer : writers_)
        if (writer)
            writer->flushDevice();
    drainAll();
}

// Without a read-back nobody else drives out what went through the page cache.
void CopyRun::evictSmall() {
    for (const auto& writer : writers_)
        if (writer)
            writer->evict(engine_.pauses_, [this] { return isCancelled(); });
    drainAll();
}

// Waits for every destination, also when the queue of one has thrown: the others still work with what belongs to this
// run. Then throws the first of it.
void CopyRun::drainAll() {
    std::exception_ptr failure;
    for (const auto& writer : writers_) {
        try {
            if (writer)
                writer->drain();
        } catch (...) {
            if (!failure)
                failure = std::current_exception();
        }
    }
    if (failure)
        std::rethrow_exception(failure);
}

// The buffers of the copy serve the read-back as well: one for each destination, which waits when there are fewer.
bool CopyRun::verify() {
    for (const auto& writer : writers_)
        if (writer)
            writer->verify(pool_.take(), engine_.pauses_, [this] { return isCancelled(); });
    drainAll();
    return !isCancelled();
}

OffloadReport CopyRun::buildReport(bool verified) const {
    return ReportBuilder::build(
        {.plan = *plan_,
         .destinations = destinations_,
         .writers = writers_,
         .hasher = hasher_,
         .sourceErrors = sourceErrors_,
         .endedAt = endedAt_,
         .endReason = endReason_,
         .started = started_,
         .copyFinished = copyFinished_,
         .copyPaused = copyPaused_,
         .verifyPaused = verifyPaused_,
         .verified = verified,
         .pending = engine_.options_.deferVerify,
         .readCard = [this, same = std::optional<bool>()](std::size_t file,
                                                          std::int64_t block) mutable -> std::optional<std::uint64_t> {
             if (!same) // asked once, so that no block of another card is read
                 same = engine_.card_->hold([this] { return isCancelled(); });
             if (isCancelled() || !*same)
                 return std::nullopt;
             return BlockReads::readCardBlock([&] { return engine_.card_->open(plan_->scan.files[file].relPath); },
                                              block, engine_.options_.chunkSize);
         }});
}

// A failed flush fails no file; the read-back finds what is lost. But without one successful flush nothing may be
// promised for the disk.
void CopyRun::blameFlush(bool verified) {
    for (const auto& writer : writers_) {
        if (!writer || writer->lasts(verified))
            continue;
        engine_.unflushed_.push_back(writer->cardPath());
        engine_.reportProblems_.push_back(fmt::format(
            "{}: the flush of the disk failed — the backup may not be on it for good.", writer->cardPath()));
        say(engine_.reportProblems_.back());
    }
}

} // namespace velmora
