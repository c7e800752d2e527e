#include "engine/OffloadEngine.h"

#include "base/RelativePath.h"
#include "blocks/BlockReads.h"
#include "blocks/ManifestFile.h"
#include "disks/VolumeSerial.h"
#include "engine/CardFolders.h"
#include "engine/CopyRun.h"
#include "engine/HeldFolders.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

#include <fmt/format.h>

#include <optional>

namespace velmora {

OffloadEngine::OffloadEngine(OffloadOptions options, Log log) : options_(std::move(options)), log_(std::move(log)) {}

OffloadEngine::~OffloadEngine() = default;

OffloadPlan OffloadEngine::prepare(const Preflight::Inputs& inputs, const Preflight::ExtraOf& extra,
                                   const Preflight::FreeSpace& freeSpace) {
    roots_ = std::make_unique<HeldFolders>(inputs.destRoots);
    Preflight::Result result = Preflight::prepare(inputs, options_, extra, freeSpace, [this] { return isCancelled(); });
    space_ = std::move(result.space);
    return std::move(result.plan);
}

namespace {

// The first line of the run in every manifest: from here on each folder alone tells which others belong to the backup.
void recordStart(const OffloadPlan& plan, const std::vector<CardFolders::Destination>& destinations,
                 const HeldFolders& held, const Log& log) {
    ManifestRecord line;
    line.kind = ManifestRecord::runKind;
    line.gen = plan.generation;
    line.mode = name(plan.mode);
    line.modified = Timestamp::now();
    line.sourceMedium = plan.sourceMedium;
    for (const auto& destination : destinations)
        line.destinations.push_back({destination.cardPath, VolumeFacts::volumeSerialText(std::string(
                                                               RelativePath::folder(destination.cardPath)))});
    line.destinations.insert(line.destinations.end(), plan.elsewhere.begin(), plan.elsewhere.end());
    for (const auto& destination : destinations) {
        try {
            if (destination.error)
                continue;
            held.check(destination.cardPath);
            ManifestFile::append(destination.cardPath, {&line, 1});
        } catch (const std::runtime_error& error) {
            if (log)
                log(fmt::format("{}: the start of the run was not recorded: {}", destination.cardPath, error.what()));
        }
    }
}

} // namespace

OffloadReport OffloadEngine::run(OffloadPlan plan) {
    const HeldFolders* const known = held_ ? held_.get() : roots_.get();
    std::vector<CardFolders::Destination> destinations =
        CardFolders::claim(plan, [&](const std::string& folder) { known ? known->check(folder) : void(); });
    const auto shared = std::make_shared<const OffloadPlan>(std::move(plan));
    std::optional<CopyRun> made;
    try {
        if (!held_)
            held_ = std::make_shared<const HeldFolders>(shared->cardPaths(), roots_.get());
        if (afterClaim_)
            afterClaim_(*shared);
        made.emplace(*this, shared, destinations);
    } catch (...) {
        CardFolders::giveBack(*shared, destinations);
        throw;
    }
    CopyRun& run = *made;
    recordStart(*shared, destinations, *held_, log_);
    {
        const MutexLock lock(mutex_);
        plan_ = shared;
        running_ = &run;
    }
    const auto ended = [&] {
        if (card_)
            card_->letGo();
        const MutexLock lock(mutex_);
        run.describe(last_);
        last_.phase = phase_;
        running_ = nullptr;
    };
    try {
        OffloadReport report = run.run();
        setPhase(ProgressSnapshot::Phase::done);
        ended();
        return report;
    } catch (...) {
        ended();
        throw;
    }
}

void OffloadEngine::lookForOtherCard() {
    if (card_ && !cardChanged_ && !isCancelled() && !card_->isThere([this] { return isCancelled(); }) && !isCancelled())
        cardChanged_ = true;
}

bool OffloadEngine::cardIsThere() const {
    return card_ && card_->isThere([this] { return isCancelled(); });
}

std::optional<std::uint64_t> OffloadEngine::readCardBlock(std::size_t file, std::int64_t block) {
    if (isCancelled() || !card_->hold([this] { return isCancelled(); }))
        return std::nullopt;
    const auto hash = BlockReads::readCardBlock([&] { return card_->open(plan()->scan.files[file].relPath); }, block,
                                                options_.chunkSize);
    card_->letGo();
    return hash;
}

// Files are read from now on.
void OffloadEngine::holdCard() {
    if (!card_->hold([this] { return isCancelled(); }) && !isCancelled())
        cardChanged_ = true;
}

void OffloadEngine::hold(const std::vector<std::string>& cardPaths) {
    held_ = std::make_shared<const HeldFolders>(cardPaths);
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
