#include "job/RepairWork.h"

#include "base/SideBySide.h"
#include "job/SetAside.h"
#include "platform/IO.h"
#include "verify/BackupVerifier.h"
#include "verify/VerifyReport.h"

#include <memory>
#include <numeric>
#include <utility>

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

// What is read now, for as long as the object lives.
class RepairWork::Step {
public:
    Step(RepairWork& work, std::string what, std::size_t parts) : work_(work) {
        MutexLock lock(work_.mutex_);
        work_.reading_ = Reading{std::move(what), std::vector<std::int64_t>(parts), std::vector<std::int64_t>(parts)};
    }
    ~Step() {
        MutexLock lock(work_.mutex_);
        work_.reading_.reset();
    }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

    void set(std::size_t part, std::int64_t done, std::int64_t total) {
        MutexLock lock(work_.mutex_);
        work_.reading_->done[part] = done;
        work_.reading_->total[part] = total;
    }

private:
    RepairWork& work_;
};

std::vector<RepairPlanner::Findings> RepairWork::examine(PauseGate& gate, const IsCancelled& isCancelled) {
    Step step(*this, "Checking the backup", cardPaths_.size());
    // All workers register before the first one starts: else a pause would count as held while some still start.
    std::vector<std::unique_ptr<PauseGate::Worker>> workers;
    for (std::size_t d = 0; d < cardPaths_.size(); ++d)
        workers.push_back(gate.work());
    return sideBySide(cardPaths_.size(), [&](std::size_t d) {
        const auto progress = [&](const VerifyProgress& now) { step.set(d, now.bytes, now.totalBytes); };
        const auto mustStop = [&] { return isCancelled() || !workers[d]->waitWhilePaused(isCancelled); };
        const VerifyResult result = BackupVerifier::verify(cardPaths_[d], chunkSize, progress, mustStop);
        workers[d]->leave();
        if (result.cancelled)
            throw Cancelled();
        if (result.folderGone) // files that were not read are not known to be good
            throw OffloadError::failed(VerifyReport::summary(result).text);
        return findingsOf(result);
    });
}

RepairPlan RepairWork::plan(const AppendPlanner::Ask& ask, const RepairPlanner::Checked& checked,
                            const std::vector<RepairPlanner::Findings>& findings, const FolderStates& folders,
                            PauseGate& gate, const IsCancelled& isCancelled) {
    Step step(*this, "Comparing with the card", 1);
    const auto worker = gate.work();
    std::int64_t read = 0;
    const auto progress = [&](std::int64_t bytes) { step.set(0, read += bytes, 0); };
    const auto mustStop = [&] { return isCancelled() || !worker->waitWhilePaused(isCancelled); };
    return RepairPlanner::plan(ask, checked, findings, folders, mustStop, progress);
}

bool RepairWork::describe(JobStatus& status) const {
    MutexLock lock(mutex_);
    if (!reading_)
        return false;
    status.examining = reading_->what;
    status.verifyDoneByDest = reading_->done;
    status.verifyTotalByDest = reading_->total;
    status.verifyDone = std::reduce(reading_->done.begin(), reading_->done.end());
    status.verifyTotal = std::reduce(reading_->total.begin(), reading_->total.end());
    return true;
}

OffloadEngine::BeforeRename RepairWork::mover(const RepairPlan& plan) {
    return [this, &plan](std::size_t destination, std::size_t file, const std::string&) {
        // A twin on a disk that folds case is refused while planning.
        SetAside::makeWay(cardPaths_[destination], plan.plan.generation, plan.plan.scan.files[file].relPath, false);
    };
}

} // namespace velmora
