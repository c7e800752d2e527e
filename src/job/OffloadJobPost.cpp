#include "base/Msg.h"
#include "engine/HeldFolders.h"
#include "job/OffloadJob.h"
#include "job/PostStage.h"
#include "records/OffloadReport.h"
#include "reports/ReportWriter.h"

#include <chrono>
#include <utility>

// What a job does when its card lies on the disks.
namespace velmora {

void OffloadJob::requireProxySettings() const {
    if (const auto problem = PostStage::problem(config_))
        throw OffloadError::preflight(PreflightCode::other, *problem);
}

void OffloadJob::finishRun(OffloadReport built, Conclusion& conclusion) {
    std::vector<ClipEntry> earlier;
    if (!conclusion.records.empty())
        earlier = conclusion.records.front().clips();
    conclude(std::move(built), conclusion);
    if (PostStage::isWanted(config_) && !engine_.isCancelled() && !engine_.cardChanged())
        runPost(*report(), std::move(earlier));
    endRun();
}

// The promises were made, or denied, before: nothing here changes them.
void OffloadJob::runPost(OffloadReport report, std::vector<ClipEntry> earlier) {
    const auto start = std::chrono::steady_clock::now();
    const double paused = engine_.pauses().pausedTotal();
    const auto plan = engine_.plan();
    PostStage stage({config_, *plan, engine_.pauses(), [this] { return engine_.isCancelled(); },
                     [this](std::string_view line) { log(line); },
                     [this](const std::string& cardPath) { engine_.held()->check(cardPath); },
                     [this](const std::function<void(JobStatus&)>& change) {
                         MutexLock lock(mutex_);
                         change(state_);
                     },
                     [this](const OffloadReport& now) { layReport(now); }, std::move(earlier)});
    stage.run(report);
    const auto defects = PostStage::defectsText(static_cast<std::int64_t>(report.contentWarnings().size()));
    if (!engine_.isCancelled())
        postSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() -
                       (engine_.pauses().pausedTotal() - paused);
    MutexLock lock(mutex_);
    if (defects)
        state_.note = state_.note ? *state_.note + " " + *defects : *defects;
}

// A folder without the records of this run may have those of another one.
void OffloadJob::layReport(const OffloadReport& report) {
    const ReportWriter::Pages pages(report);
    for (const std::string& cardPath : recorded_) {
        try {
            engine_.held()->check(cardPath);
            pages.write(cardPath, false);
        } catch (const std::exception& error) {
            log(cardPath + ": " + error.what());
            addWarning(Msg::reportNotWritten(error.what()));
        }
    }
    MutexLock lock(mutex_);
    report_ = std::make_shared<const OffloadReport>(report);
}

} // namespace velmora
