#include "engine/OffloadEngine.h"

#include "engine/CardFolders.h"
#include "engine/CopyRun.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

namespace velmora {

OffloadEngine::OffloadEngine(OffloadOptions options, Log log) : options_(std::move(options)), log_(std::move(log)) {}

OffloadEngine::~OffloadEngine() = default;

OffloadPlan OffloadEngine::prepare(const Preflight::Inputs& inputs, const Preflight::ExtraOf& extra,
                                   const Preflight::FreeSpace& freeSpace) {
    Preflight::Result result = Preflight::prepare(inputs, options_, extra, freeSpace, [this] { return isCancelled(); });
    space_ = std::move(result.space);
    return std::move(result.plan);
}

OffloadReport OffloadEngine::run(OffloadPlan plan, RunRecorder& recorder) {
    std::vector<CardFolders::Destination> destinations = CardFolders::claim(plan);
    const auto shared = std::make_shared<const OffloadPlan>(std::move(plan));
    CopyRun run(*this, shared, std::move(destinations));
    {
        const MutexLock lock(mutex_);
        plan_ = shared;
        running_ = &run;
    }
    const auto ended = [&] {
        const MutexLock lock(mutex_);
        run.describe(last_);
        last_.phase = phase_;
        running_ = nullptr;
    };
    try {
        OffloadReport report = run.run(recorder);
        setPhase(ProgressSnapshot::Phase::done);
        ended();
        return report;
    } catch (...) {
        ended();
        throw;
    }
}

void OffloadEngine::cancel() {
    cancelled_ = true;
    pauses_.wake();
}

void OffloadEngine::setPhase(ProgressSnapshot::Phase phase) {
    const MutexLock lock(mutex_);
    phase_ = phase;
}

ProgressSnapshot OffloadEngine::snapshot() const {
    const MutexLock lock(mutex_);
    ProgressSnapshot snapshot = running_ == nullptr ? last_ : ProgressSnapshot{};
    if (running_ != nullptr)
        running_->describe(snapshot);
    snapshot.phase = phase_;
    return snapshot;
}

std::shared_ptr<const OffloadPlan> OffloadEngine::plan() const {
    const MutexLock lock(mutex_);
    return plan_;
}

} // namespace velmora
