#include "engine/CopyRun.h"

#include "base/Text.h"
#include "engine/CaseFolding.h"
#include "engine/OffloadEngine.h"
#include "engine/PartResume.h"
#include "engine/SourceReader.h"
#include "records/OffloadPlan.h"

#include <algorithm>
#include <fmt/format.h>

namespace velmora {

namespace {

NameClashes clashesOf(const OffloadPlan& plan) {
    const SourceScan& scan = plan.scan;
    NameClashes clashes;
    clashes.flushFile = plan.flushFileTaken;
    for (const SourceFile& file : scan.files) {
        std::string key = collisionKey(file.relPath);
        if (key == DeviceFlush::flushFileName)
            clashes.flushFile = true;
        if (key.ends_with(".offload-part"))
            clashes.partNames.insert(std::move(key));
    }
    for (const CaseFolding::Collision& collision : CaseFolding::collisions(scan.files)) {
        const std::string& first = scan.files[collision.first].relPath;
        clashes.folded.emplace(collisionKey(first), first);
    }
    return clashes;
}

// What of part files has to be read before the copy can go on behind it.
std::int64_t partBytes(const OffloadPlan& plan) {
    std::int64_t bytes = 0;
    const std::size_t destinations = plan.cardPaths().size();
    for (const FileTask& task : plan.tasks)
        for (std::size_t d = 0; task.resume && d < destinations; ++d)
            bytes +=
                task.writesTo(d) ? task.resume->blockSize * static_cast<std::int64_t>(task.resume->blocks.size()) : 0;
    return bytes;
}

} // namespace

CopyRun::CopyRun(OffloadEngine& engine, std::shared_ptr<const OffloadPlan> plan,
                 std::vector<CardFolders::Destination> destinations)
    : engine_(engine), plan_(std::move(plan)), destinations_(std::move(destinations)), clashes_(clashesOf(*plan_)),
      pool_(static_cast<std::size_t>(engine.options_.chunkSize), static_cast<std::size_t>(engine.options_.bufferCount)),
      hasher_(engine.options_.chunkSize, plan_->scan.files.size(), engine.log_), endedAt_(plan_->scan.files.size()),
      totalBytes_(plan_->scan.totalBytes()), toWrite_(destinations_.size()), bytesToCheck_(partBytes(*plan_)) {
    makeWriters();
    for (std::size_t file = 0; file < plan_->scan.files.size(); ++file)
        for (std::size_t d = 0; d < writers_.size(); ++d)
            if (writers_[d] && plan_->task(file).writesTo(d))
                toWrite_[d].add(plan_->scan.files[file].size);
}

CopyRun::~CopyRun() = default;

bool CopyRun::isCancelled() const noexcept { return engine_.isCancelled(); }

void CopyRun::say(const std::string& text) const {
    if (engine_.log_)
        engine_.log_(text);
}

void CopyRun::describe(ProgressSnapshot& snapshot) const {
    const auto& files = plan_->scan.files;
    const std::size_t index = fileIndex_.load(std::memory_order_relaxed);
    snapshot.totalBytes = totalBytes_ - settledBytes_.value();
    snapshot.totalFiles = static_cast<std::int64_t>(files.size());
    snapshot.fileIndex = static_cast<std::int64_t>(index);
    snapshot.currentFile = index < files.size() ? files[index].relPath : "";
    snapshot.readBytes = readBytes_.value();
    snapshot.checkedBytes = checkedBytes_.value();
    snapshot.bytesToCheck = bytesToCheck_ - uncheckedBytes_.value();
    snapshot.errors = sourceFailures_.value();
    for (const Counter& bytes : toWrite_)
        snapshot.bytesToWrite.push_back(bytes.value());
    for (const auto& writer : writers_) {
        snapshot.writtenBytes.push_back(writer ? writer->written() : 0);
        snapshot.handledBytes.push_back(writer ? writer->handled() : 0);
        snapshot.verifiedBytes.push_back(writer ? writer->verified() : 0);
        snapshot.bytesToVerify.push_back(writer ? writer->toVerify() : 0);
        snapshot.errors += writer ? writer->failures() : 0;
        if (const auto file = writer ? writer->verifyingNow() : std::nullopt)
            if (const std::string& name = files[*file].relPath;
                std::ranges::find(snapshot.verifyingFiles, name) == snapshot.verifyingFiles.end())
                snapshot.verifyingFiles.push_back(name);
    }
}

OffloadReport CopyRun::run() {
    started_ = Timestamp::now();
    if (!engine_.card_)
        engine_.meetCard(plan_->source);
    engine_.holdCard();
    worker_ = engine_.pauses_.work();
    pausedBefore_ = engine_.pauses_.pausedTotal();
    const std::int64_t began = monotonicNanos();
    copyAll();
    engine_.lookForOtherCard(); // while it is held: whatever its volume says, another folder is another card
    engine_.card_->letGo();
    keepTimes(began);
    engine_.setPhase(ProgressSnapshot::Phase::flush);
    flush();
    worker_->leave();
    copyFinished_ = Timestamp::now();
    copyPaused_ = engine_.pauses_.pausedTotal() - pausedBefore_;

    bool verified = false;
    if (engine_.options_.verify && !engine_.options_.deferVerify) {
        engine_.setPhase(ProgressSnapshot::Phase::verify);
        verified = verify();
        verifyPaused_ = engine_.pauses_.pausedTotal() - pausedBefore_ - copyPaused_;
    } else {
        evictSmall();
    }
    engine_.lookForOtherCard();
    engine_.setPhase(ProgressSnapshot::Phase::report);
    OffloadReport report = buildReport(verified);
    blameFlush(verified);
    for (auto& destination : report.destinations)
        if (std::ranges::find(engine_.unflushed_, destination.cardPath) != engine_.unflushed_.end())
            destination.flushed = false;
    if (!engine_.unflushed_.empty())
        report.verifyIncomplete = true; // a disk was never flushed: nobody may format a card on this report
    engine_.fileBlocks_ = hasher_.takeBlocks();
    engine_.fileBlocks_.resize(report.files.size());
    return report;
}

void CopyRun::makeWriters() {
    bool any = false;
    for (std::size_t d = 0; d < destinations_.size(); ++d) {
        writers_.push_back(nullptr);
        CardFolders::Destination& destination = destinations_[d];
        if (destination.error)
            continue;
        DestWriter::Settings settings{.index = d,
                                      .cardPath = destination.cardPath,
                                      .topFolder = destination.topFolder,
                                      .held = engine_.held_.get(),
                                      .options = &engine_.options_,
                                      .files = &plan_->scan.files,
                                      .clashes = &clashes_,
                                      .hasher = &hasher_,
                                      .clock = &sourceClock_,
                                      .generation = plan_->generation,
                                      .resuming = plan_->resuming,
                                      .beforeRename = {},
                                      .log = engine_.log_};
        if (engine_.beforeRename_)
            settings.beforeRename = [this, d](std::size_t file, const std::string& path) {
                engine_.beforeRename_(d, file, path);
            };
        try {
            auto writer = std::make_unique<DestWriter>(std::move(settings));
            writer->keepFolders(CardFolders::createTree(destination.cardPath, *plan_));
            writers_.back() = std::move(writer);
            any = true;
        } catch (const std::runtime_error& error) {
            destination.error = error.what();
        }
    }
    for (const CardFolders::Destination& destination : destinations_)
        if (destination.error)
            say(fmt::format("{} takes no part: {}", destination.cardPath, *destination.error));
    if (!any && !destinations_.empty())
        throw OffloadError::failed(*destinations_.front().error);
}

void CopyRun::copyAll() {
    const std::size_t count = plan_->scan.files.size();
    for (std::size_t file = 0; file < count; ++file) {
        fileIndex_.store(file, std::memory_order_relaxed);
        if (isCancelled())
            return endAt(file, "cancelled");
        if (engine_.options_.beforeFileCopy)
            engine_.options_.beforeFileCopy(static_cast<std::int64_t>(file));
        if (!holdBetweenFiles())
            return endAt(file, "cancelled");
        if (engine_.cardChanged_)
            return endForOtherCard(file);
        const Task& task = taskOf(file);
        readOfFile_ = handedOn_ = 0;
        if (adoptKnown(task))
            continue;
        if (plan_->scan.files[file].size <= static_cast<std::int64_t>(pool_.sliceLimit()) && !plan_->task(file).resume)
            copySmall(task);
        else
            copyLarge(task);
        // The file that the cancel cut short has recorded its error already.
        if (isCancelled())
            return endAt(file + 1, "cancelled");
    }
    fileIndex_.store(count, std::memory_order_relaxed);
}

void CopyRun::endAt(std::size_t file, std::string reason) {
    endedAt_ = file;
    endReason_ = std::move(reason);
    sourceFailures_.add(static_cast<std::int64_t>(plan_->scan.files.size() - file));
}

// The card is not read any more. Files that need no reading are still taken over.
void CopyRun::endForOtherCard(std::size_t file) {
    for (; file < plan_->scan.files.size(); ++file) {
        const Task& task = taskOf(file);
        readOfFile_ = handedOn_ = 0;
        if (!adoptKnown(task))
            sourceFailed(task, std::string(SourceCard::changed), false);
    }
}

// False when cancelled. A pause finds nobody reading, and what is complete flushed and recorded: the power may go
// meanwhile.
bool CopyRun::holdBetweenFiles() {
    if (!engine_.pauses_.isPaused())
        return !isCancelled();
    const SourceClock::Visit standing(sourceClock_);
    hasher_.wait();
    for (const auto& writer : writers_)
        if (writer)
            writer->flushComplete();
    drainAll();
    engine_.card_->letGo(); // it may be taken out meanwhile
    if (!worker_->waitWhilePaused([this] { return isCancelled(); }))
        return false;
    engine_.holdCard();
    return !isCancelled();
}

const CopyRun::Task& CopyRun::taskOf(std::size_t file) {
    task_.file = file;
    task_.targets.clear();
    task_.holders.clear();
    const FileTask& planned = plan_->task(file);
    task_.known = planned.known ? &*planned.known : nullptr;
    for (std::size_t d = 0; d < writers_.size(); ++d) {
        if (!writers_[d])
            continue;
        (planned.writesTo(d) ? task_.targets : task_.holders).push_back(writers_[d].get());
    }
    return task_;
}

// True when the file needs no reading: every destination has it, and its record holds all that reading would tell.
bool CopyRun::adoptKnown(const Task& task) {
    if (task.known == nullptr || !task.targets.empty())
        return false;
    const SourceFile& file = plan_->scan.files[task.file];
    const auto hash = task.known->xxh64Value();
    auto blocks = task.known->blockValues();
    if (!hash || !blocks || task.known->blockSize != engine_.options_.chunkSize ||
        !BlockManifest::make(file.size, task.known->blockSize, *blocks))
        return false;
    hasher_.setKnown(task.file, *hash, std::move(*blocks));
    for (DestWriter* holder : task.holders)
        holder->adopt(task.file, true);
    settledBytes_.add(file.size);
    return true;
}

void CopyRun::adoptHeld(const Task& task) {
    // A manifest line is written again only for a file that a manifest already records. A file known only from a report
    // gets none: the line would make a killed run look like another kind of run.
    for (DestWriter* holder : task.holders)
        holder->adopt(task.file, task.known != nullptr && task.known->blockSize > 0);
}

Chunk& CopyRun::takeChunk(std::size_t bytes, bool slice) {
    const std::int64_t began = monotonicNanos();
    Chunk& chunk = slice ? pool_.takeSlice(bytes) : pool_.take();
    waitedNanos_ += monotonicNanos() - began;
    return chunk;
}

// A card that came back after its contacts were lost is held anew. What came in its place is not read.
SourceReader CopyRun::openSource(std::size_t file) {
    const SourceFile& source = plan_->scan.files[file];
    try {
        return SourceReader(*engine_.card_, source, engine_.options_, sourceClock_);
    } catch (const OffloadError&) {
        if (engine_.card_->isWhereHeld())
            throw;
    }
    engine_.holdCard();
    if (engine_.cardChanged_)
        throw OffloadError::failed(std::string(SourceCard::changed));
    return SourceReader(*engine_.card_, source, engine_.options_, sourceClock_);
}

// Read first, then told to everybody in one go: a small file costs each queue one turn, and a file that cannot be read
// leaves no trace on any disk.
void CopyRun::copySmall(const Task& task) {
    const SourceFile& file = plan_->scan.files[task.file];
    Chunk* chunk = nullptr;
    try {
        SourceReader reader = openSource(task.file);
        std::size_t got = 0;
        if (file.size > 0) {
            chunk = &takeChunk(static_cast<std::size_t>(file.size), true);
            got = reader.read(chunk->memory(), 0);
            chunk->set(0, got);
        }
        reader.checkUnchanged(static_cast<std::int64_t>(got));
        readBytes_.add(static_cast<std::int64_t>(got));
        readOfFile_ = static_cast<std::int64_t>(got);
    } catch (const OffloadError& error) {
        if (chunk != nullptr)
            chunk->release();
        sourceFailed(task, error.what(), false);
        return;
    }
    if (chunk != nullptr)
        chunk->share(1 + static_cast<int>(task.targets.size()));
    hasher_.whole(task.file, chunk);
    try {
        checkAgainstKnown(task);
    } catch (const OffloadError& error) {
        for (std::size_t t = 0; chunk != nullptr && t < task.targets.size(); ++t)
            chunk->release();
        sourceFailed(task, error.what(), false);
        return;
    }
    for (DestWriter* target : task.targets)
        target->whole(task.file, chunk);
    adoptHeld(task);
    if (chunk != nullptr)
        afterBlock(task.file, 0);
}

void CopyRun::copyLarge(const Task& task) {
    const SourceFile& file = plan_->scan.files[task.file];
    bool begun = false;
    try {
        std::optional<SourceReader> reader(openSource(task.file));
        begun = true;
        if (plan_->task(task.file).resume)
            reader.reset(); // the check of the part files may be paused, and the card taken out
        const std::int64_t from = startLarge(task);
        if (!reader)
            reader.emplace(openSource(task.file));
        const std::int64_t end = readBlocks(task, *reader, from);
        if (isCancelled() && end < file.size)
            throw OffloadError::failed("cancelled");
        reader->checkUnchanged(end);
        hasher_.finish(task.file);
        checkAgainstKnown(task);
    } catch (const OffloadError& error) {
        sourceFailed(task, error.what(), begun);
        return;
    }
    for (DestWriter* target : task.targets)
        target->finish(task.file);
    adoptHeld(task);
}

// Returns the offset to read from.
std::int64_t CopyRun::startLarge(const Task& task) {
    hasher_.begin();
    const std::optional<PartCheckpoint>& checkpoint = plan_->task(task.file).resume;
    if (checkpoint && !task.targets.empty()) {
        std::vector<std::string> paths;
        for (const DestWriter* target : task.targets)
            paths.push_back(target->cardPath());
        const SourceClock::Visit reading(sourceClock_); // the part files replace the card here
        // A safe place to stop: nobody writes, and the part files stay as they are.
        const PartResume::Hooks hooks{[this] { return !holdBetweenFiles() || engine_.cardChanged_; },
                                      [this](std::int64_t bytes) { checkedBytes_.add(bytes); }};
        const std::int64_t before = checkedBytes_.value();
        std::optional<std::int64_t> offset;
        try {
            offset = PartResume::verify(plan_->scan.files[task.file], *checkpoint, engine_.options_.chunkSize, paths,
                                        hasher_, pool_, hooks);
        } catch (const Cancelled&) {
            throw OffloadError::failed(std::string(engine_.cardChanged_ ? SourceCard::changed : "cancelled"));
        }
        const auto planned =
            checkpoint->blockSize * static_cast<std::int64_t>(checkpoint->blocks.size() * paths.size());
        uncheckedBytes_.add(planned - (checkedBytes_.value() - before)); // what did not fit was not read to its end
        if (offset) {
            for (DestWriter* target : task.targets)
                target->beginResume(task.file, *checkpoint);
            engine_.resumedBytes_ += *offset;
            settledBytes_.add(*offset);
            readOfFile_ = handedOn_ = *offset;
            for (const DestWriter* target : task.targets)
                toWrite_[target->index()].add(-*offset);
            return *offset;
        }
        hasher_.begin();
    }
    for (DestWriter* target : task.targets)
        target->begin(task.file);
    return 0;
}

// Returns the offset at which the file, or the run, ended.
std::int64_t CopyRun::readBlocks(const Task& task, SourceReader& reader, std::int64_t offset) {
    const SourceFile& file = plan_->scan.files[task.file];
    // Linux zeroes what a direct read leaves of a buffer behind the end of a file: the last block asks for its own
    // length only.
    const auto roomFor = [&](std::int64_t left) {
        constexpr std::int64_t unit = 4096;
        return static_cast<std::size_t>(std::min((left + unit - 1) / unit * unit, engine_.options_.chunkSize));
    };
    while (offset < file.size && !isCancelled()) {
        Chunk& chunk = takeChunk(0, false);
        std::size_t got = 0;
        try {
            got = reader.read(chunk.memory().first(roomFor(file.size - offset)), offset);
        } catch (...) {
            chunk.release();
            throw;
        }
        if (got == 0) {
            chunk.release();
            break;
        }
        chunk.set(offset, got);
        chunk.share(1 + static_cast<int>(task.targets.size()));
        readBytes_.add(static_cast<std::int64_t>(got));
        readOfFile_ += static_cast<std::int64_t>(got);
        handedOn_ += static_cast<std::int64_t>(got);
        hasher_.update(chunk);
        for (DestWriter* target : task.targets)
            target->write(chunk);
        afterBlock(task.file, offset / engine_.options_.chunkSize);
        offset += static_cast<std::int64_t>(got);
    }
    return offset;
}

void CopyRun::afterBlock(std::size_t file, std::int64_t block) {
    ++blocksRead_;
    const OffloadOptions& options = engine_.options_;
    if (options.afterChunkRead)
        options.afterChunkRead(blocksRead_);
    if (options.crashAfterBlock && options.crashAfterBlock(static_cast<std::int64_t>(file), block))
        throw SimulatedCrash();
}

// Some disks have this file from an earlier run, others get it now. Both must be the same file: one digest is recorded
// for all.
void CopyRun::checkAgainstKnown(const Task& task) {
    const auto recorded = task.known == nullptr ? std::nullopt : task.known->xxh64Value();
    if (!recorded)
        return;
    hasher_.wait();
    if (const auto now = hasher_.hashOf(task.file); now != recorded)
        throw OffloadError::failed(
            fmt::format("the card has different content than at the backup ({:016x}, in the backup {:016x})",
                        now.value_or(0), *recorded));
}

void CopyRun::sourceFailed(const Task& task, const std::string& error, bool begun) {
    const std::string reason = "source: " + error;
    const std::int64_t size = plan_->scan.files[task.file].size;
    settledBytes_.add(size - readOfFile_); // nobody waits for the rest
    for (const DestWriter* target : task.targets)
        toWrite_[target->index()].add(handedOn_ - size);
    if (begun) {
        hasher_.abort();
        for (DestWriter* target : task.targets)
            target->abort(task.file, reason);
    } else {
        for (DestWriter* target : task.targets)
            target->abortQuietly(task.file, reason);
    }
    hasher_.forget(task.file);
    // A source error does not fail a destination that was not to be written. Its old copy is read back and compared
    // with the recorded digest.
    if (const auto hash = task.known == nullptr ? std::nullopt : task.known->xxh64Value();
        hash && !task.holders.empty())
        hasher_.setKnown(task.file, *hash, {});
    for (DestWriter* holder : task.holders)
        holder->adopt(task.file, false);
    sourceErrors_[task.file] = error;
    sourceFailures_.add(1);
}

} // namespace velmora
