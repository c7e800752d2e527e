#include "job/CardComparison.h"

#include "base/Hex.h"
#include "base/Msg.h"
#include "blocks/HashStreams.h"
#include "platform/IO.h"

#include <fmt/format.h>

#include <cstddef>
#include <string>

namespace velmora {

namespace {

constexpr std::size_t readBytes = std::size_t{16} << 20;

} // namespace

void CardComparison::run(const AppendPlan& plan, bool all, PauseGate& gate, const IsCancelled& isCancelled) {
    std::int64_t total = 0;
    for (std::size_t f = 0; f < plan.tasks.size(); ++f)
        total += plan.tasks[f].known && plan.tasks[f].known->xxh64 ? plan.newFiles[f].size : 0;
    total_ = total;
    done_ = 0;
    struct Reading {
        std::atomic<bool>& flag;
        explicit Reading(std::atomic<bool>& on) : flag(on) { flag = true; }
        ~Reading() { flag = false; }
        Reading(const Reading&) = delete;
        Reading& operator=(const Reading&) = delete;
    } const reading(reading_);
    const auto worker = gate.work();
    AlignedBuffer buffer = IO::allocateAligned(readBytes);
    for (std::size_t f = 0; f < plan.tasks.size(); ++f) {
        const auto& known = plan.tasks[f].known;
        if (!known || !known->xxh64)
            continue;
        const std::string& path = plan.newFiles[f].relPath;
        XXH64Stream hash;
        try {
            auto reader = UncachedReader::beneath(plan.source, path);
            std::int64_t offset = 0;
            while (const std::size_t got = reader.readAt(buffer.span(), offset)) {
                hash.update(buffer.data(), got);
                offset += static_cast<std::int64_t>(got);
                done_ += static_cast<std::int64_t>(got);
                if (isCancelled() || !worker->waitWhilePaused(isCancelled))
                    throw Cancelled();
            }
        } catch (const IOError& error) {
            if (!all)
                continue;
            throw OffloadError::preflight(PreflightCode::other,
                                          Msg::repairCardUnreadable(path, error.what()) +
                                              " — nothing was written. The card cannot be compared with the backup.");
        }
        if (const std::string now = Hex::of64(hash.digest()); now != known->xxh64)
            throw OffloadError::preflight(PreflightCode::appendOtherCard,
                                          Msg::repairCardDiffers(path, now, *known->xxh64) +
                                              " — is it a different card? Nothing was written. Make a full copy.");
    }
}

bool CardComparison::describe(JobStatus& status) const {
    if (!reading_)
        return false;
    status.examining = "Comparing with the card";
    status.verifyDoneByDest = {done_};
    status.verifyTotalByDest = {total_};
    status.verifyDone = done_;
    status.verifyTotal = total_;
    return true;
}

} // namespace velmora
