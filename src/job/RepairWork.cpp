#include "job/RepairWork.h"

#include "base/SideBySide.h"
#include "job/SetAside.h"
#include "verify/BackupVerifier.h"

namespace velmora {

namespace {

constexpr std::size_t chunkSize = 0x1000000;

RepairPlanner::Findings findingsOf(const VerifyResult& result) {
    if (result.folderGone)
        throw OffloadError::failed(result.cardPath +
                                   ": The backup folder disappeared — the disk may have been disconnected.");
    RepairPlanner::Findings findings;
    findings.defective = result.changed;
    for (const auto& each : result.unreadable)
        if (each.isRecorded)
            findings.defective.push_back(each.path);
    findings.missing = result.missing;
    return findings;
}

} // namespace

std::vector<RepairPlanner::Findings> RepairWork::examine(const IsCancelled& isCancelled) {
    {
        MutexLock lock(mutex_);
        progress_.assign(cardPaths_.size(), {});
    }
    return sideBySide(cardPaths_.size(), [&](std::size_t d) {
        const auto progress = [&](const VerifyProgress& now) {
            MutexLock lock(mutex_);
            progress_[d] = {now.bytes, now.totalBytes};
        };
        const VerifyResult result = BackupVerifier::verify(cardPaths_[d], chunkSize, progress, isCancelled);
        if (result.cancelled)
            throw Cancelled();
        return findingsOf(result);
    });
}

std::vector<std::int64_t> RepairWork::bytesRead() const {
    MutexLock lock(mutex_);
    std::vector<std::int64_t> bytes;
    for (const Progress& each : progress_)
        bytes.push_back(each.read);
    return bytes;
}

std::vector<std::int64_t> RepairWork::bytesTotal() const {
    MutexLock lock(mutex_);
    std::vector<std::int64_t> bytes;
    for (const Progress& each : progress_)
        bytes.push_back(each.total);
    return bytes;
}

OffloadEngine::BeforeRename RepairWork::mover(const RepairPlan& plan) {
    return [this, &plan](std::size_t destination, std::size_t file, const std::string&) {
        // A twin on a disk that folds case is refused while planning.
        SetAside::makeWay(cardPaths_[destination], plan.plan.generation, plan.plan.scan.files[file].relPath, false);
    };
}

} // namespace velmora
