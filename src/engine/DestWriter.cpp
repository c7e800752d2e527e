#include "engine/DestWriter.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "blocks/CacheProbe.h"
#include "blocks/HashStreams.h"
#include "blocks/ManifestFile.h"
#include "engine/CaseFolding.h"
#include "engine/HeldFolders.h"
#include "engine/OffloadOptions.h"
#include "engine/SourceHasher.h"
#include "platform/IO.h"

#include <cerrno>
#include <fmt/format.h>

namespace velmora {

namespace {

constexpr std::string_view partSuffix = ".offload-part";
constexpr std::size_t longestName = 255;

} // namespace

// One task on the queue: keeps the account of idle time between the tasks.
class DestWriter::Turn {
public:
    explicit Turn(DestWriter& writer) : writer_(writer) {
        if (!writer_.copying_)
            return;
        const std::int64_t now = monotonicNanos();
        if (writer_.turnEnded_ != 0) {
            const std::int64_t idle = now - writer_.turnEnded_;
            const std::int64_t excused = writer_.set_.clock->at(now) - writer_.sourceAtEnd_;
            writer_.idleNanos_ += idle;
            writer_.needlessNanos_ += std::max<std::int64_t>(0, idle - excused);
        }
    }
    ~Turn() {
        if (!writer_.copying_)
            return;
        writer_.turnEnded_ = monotonicNanos();
        writer_.sourceAtEnd_ = writer_.set_.clock->at(writer_.turnEnded_);
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    DestWriter& writer_;
};

DestWriter::DestWriter(Settings settings)
    : set_(std::move(settings)), flush_(set_.cardPath, set_.topFolder), results_(set_.files->size()),
      writtenHere_(set_.files->size()), xxh128_(set_.files->size()),
      queue_(fmt::format("offload.dest{}", set_.index), set_.log) {
    checkFolder();
}

DestWriter::~DestWriter() = default;

std::string DestWriter::partName(std::string_view relPath) {
    const std::string_view folder = RelativePath::folder(relPath);
    const std::string_view name = RelativePath::name(relPath);
    std::string part = folder.empty() ? "" : std::string(folder) + "/";
    if (name.size() + 1 + partSuffix.size() <= longestName)
        return part.append(".").append(name).append(partSuffix);
    const std::string mark = fmt::format("~{:016x}", blockHash(name.data(), name.size()));
    const std::string_view head = cutUtf8(name, longestName - 1 - partSuffix.size() - mark.size());
    return part.append(".").append(head).append(mark).append(partSuffix);
}

template <class F>
void DestWriter::post(F&& work) {
    queue_.async([this, task = std::forward<F>(work)]() mutable {
        const Turn turn(*this);
        task();
    });
}

void DestWriter::begin(std::size_t file) {
    post([this, file] { doBegin(file, nullptr); });
}

void DestWriter::beginResume(std::size_t file, const PartCheckpoint& checkpoint) {
    post([this, file, &checkpoint] { doBegin(file, &checkpoint); });
}

void DestWriter::write(Chunk& chunk) {
    post([this, &chunk] {
        const Chunk::Hold hold(&chunk);
        doWrite(chunk);
    });
}

void DestWriter::finish(std::size_t file) {
    post([this, file] { doFinish(file); });
}

void DestWriter::abort(std::size_t file, std::string reason) {
    post([this, file, why = std::move(reason)]() mutable {
        dropPart();
        fail(file, std::move(why));
    });
}

void DestWriter::abortQuietly(std::size_t file, std::string reason) {
    post([this, file, why = std::move(reason)]() mutable { fail(file, std::move(why)); });
}

void DestWriter::whole(std::size_t file, Chunk* chunk) {
    post([this, file, chunk] {
        const Chunk::Hold hold(chunk);
        doBegin(file, nullptr);
        if (chunk != nullptr)
            doWrite(*chunk);
        doFinish(file);
    });
}

void DestWriter::adopt(std::size_t file, bool record) {
    post([this, file, record] {
        results_[file] = {FileState::written, std::nullopt};
        if (record)
            wait(file, true);
    });
}

void DestWriter::flushComplete() {
    post([this] {
        if (!waiting_.empty())
            flushWaiting();
    });
}

void DestWriter::flushDevice() {
    post([this] {
        copying_ = false;
        deviceFlushed_ = flushWaiting();
    });
}

// The worker registers here and not on the queue, so that a pause counts it from the start.
void DestWriter::verify(Chunk& chunk, PauseGate& gate, IsCancelled isCancelled) {
    post([this, &chunk, worker = gate.work(), cancelled = std::move(isCancelled)] {
        const Chunk::Hold hold(&chunk);
        doVerify(chunk.memory(), *worker, cancelled);
    });
}

void DestWriter::evict(PauseGate& gate, IsCancelled isCancelled) {
    post([this, worker = gate.work(), cancelled = std::move(isCancelled)] {
        for (std::size_t file = 0; file < results_.size(); ++file) {
            if (!writtenHere_[file] || !goesThroughCache(file) || fileAt(file).size == 0)
                continue;
            if (cancelled() || !worker->waitWhilePaused(cancelled))
                return;
            CacheProbe::evict(finalPath(file));
        }
    });
}

std::optional<std::size_t> DestWriter::verifyingNow() const noexcept {
    const std::int64_t file = verifyingNow_.load(std::memory_order_relaxed);
    return file < 0 ? std::nullopt : std::optional(static_cast<std::size_t>(file));
}

bool DestWriter::flushedAlone(std::size_t file) const { return fileAt(file).size >= set_.options->fullSyncThreshold; }

void DestWriter::checkFolder() const {
    if (set_.held != nullptr)
        set_.held->check(set_.cardPath);
}

void DestWriter::doBegin(std::size_t file, const PartCheckpoint* checkpoint) {
    current_ = file;
    currentError_.reset();
    blockHashes_.clear();
    checkpointed_ = 0;
    const SourceFile& source = fileAt(file);
    try {
        // All room at once: no block allocates.
        blockHashes_.reserve(static_cast<std::size_t>(BlockManifest::countFor(source.size, set_.options->chunkSize)));
        if (checkpoint != nullptr) {
            blockHashes_ = checkpoint->blocks;
            checkpointed_ = blockHashes_.size();
        }
        const std::string part = partName(source.relPath);
        partPath_ = set_.cardPath + "/" + part;
        if (!set_.clashes->partNames.empty() && set_.clashes->partNames.contains(collisionKey(part)))
            throw OffloadError::failed("the temporary copy name " + part + " is another file of the card");
        checkFolder();
        openPart(file, checkpoint != nullptr);
    } catch (const std::exception& error) {
        part_.reset();
        currentError_ = error.what();
    }
}

void DestWriter::openPart(std::size_t file, bool continuing) {
    using Open = UncachedWriter::Open;
    const Open how = continuing ? Open::existing : set_.resuming ? Open::createOrTruncate : Open::createNew;
    const CacheMode wanted = goesThroughCache(file) ? CacheMode::dropBehind : CacheMode::direct;
    part_.emplace(partPath_, how, wanted);
    if (wanted == CacheMode::direct) {
        unbuffered_ = unbuffered_.value_or(true) && part_->mode() == CacheMode::direct;
        part_->preallocate(fileAt(file).size);
    }
}

void DestWriter::doWrite(Chunk& chunk) {
    if (part_) {
        try {
            const std::int64_t began = monotonicNanos();
            part_->writeAt(chunk.bytes(), chunk.offset());
            busyNanos_ += monotonicNanos() - began;
            written_.add(static_cast<std::int64_t>(chunk.bytes().size()));
            blockHashes_.push_back(blockHash(chunk.bytes().data(), chunk.bytes().size()));
            const auto fresh = static_cast<std::int64_t>(blockHashes_.size() - checkpointed_);
            if (fresh >= std::max<std::int64_t>(1, set_.options->checkpointBlocks))
                checkpoint();
        } catch (const std::exception& error) {
            currentError_ = error.what();
            dropPart();
        }
    }
    handled_.add(static_cast<std::int64_t>(chunk.bytes().size()));
}

// The blocks that the line names are on the medium, and so is the part file's name, before the line is written. A line
// that cannot be written leaves its blocks to the next one.
void DestWriter::checkpoint() {
    part_->flush();
    checkFolder();
    const SourceFile& source = fileAt(*current_);
    if (checkpointed_ == 0)
        flush_.makeNamesDurable(partPath_.substr(0, partPath_.find_last_of('/')));
    ManifestRecord record;
    record.kind = ManifestRecord::partKind;
    record.gen = set_.generation;
    record.path = source.relPath;
    record.size = source.size;
    record.modified = source.mtime.floorToSecond();
    record.blockSize = set_.options->chunkSize;
    record.first = static_cast<std::int64_t>(checkpointed_);
    record.blocks = ManifestRecord::hex({blockHashes_.begin() + record.first, blockHashes_.end()});
    try {
        ManifestFile::append(set_.cardPath, std::span(&record, 1));
        checkpointed_ = blockHashes_.size();
    } catch (const IOError& error) {
        say(fmt::format("checkpoint of {} not recorded: {}", source.relPath, error.what()));
    }
}

void DestWriter::doFinish(std::size_t file) {
    if (!part_) {
        fail(file, currentError_.value_or("write failed"));
    } else {
        try {
            if (const auto error = mismatch(file))
                throw OffloadError::failed(*error);
            makeFinal(file);
            results_[file] = {FileState::written, std::nullopt};
            writtenHere_[file] = true;
            record(file);
        } catch (const std::exception& error) {
            dropPart();
            fail(file, error.what());
        }
    }
    current_.reset();
}

void DestWriter::makeFinal(std::size_t file) {
    const SourceFile& source = fileAt(file);
    try {
        part_->setModified(source.mtime);
    } catch (const IOError&) { // some file systems keep no times; the manifest does
    }
    const bool alone = flushedAlone(file);
    if (alone || !flush_.coversEveryFile())
        part_->flush();
    else if (!goesThroughCache(file))
        part_->pushToDisk();
    part_->close();

    const std::string final = finalPath(file);
    checkFolder();
    if (set_.beforeRename)
        set_.beforeRename(file, final);
    // No run replaces a file, not even a resumed one. What stood in its way was moved aside before.
    try {
        IO::renameNoReplace(partPath_, final);
    } catch (const IOError& error) {
        if (error.code() != EEXIST)
            throw;
        const auto shared = set_.clashes->folded.find(collisionKey(source.relPath));
        throw OffloadError::failed(shared != set_.clashes->folded.end() && shared->second != source.relPath
                                       ? CaseFolding::error(shared->second)
                                       : "file appeared meanwhile: " + final);
    }
    part_.reset();
    const std::string folder = final.substr(0, final.find_last_of('/'));
    if (alone)
        flush_.makeNamesDurable(folder);
    else
        flush_.touched(folder);
}

void DestWriter::fail(std::size_t file, std::string error) {
    // What the card did not give is counted once, by the reader, not once for each disk.
    failures_.add(error.starts_with("source: ") ? 0 : 1);
    results_[file] = {FileState::failed, std::move(error)};
}

void DestWriter::dropPart() noexcept {
    if (!part_)
        return;
    part_.reset();
    try {
        IO::unlink(partPath_);
    } catch (const std::exception& error) {
        say(fmt::format("{} remains: {}", partPath_, error.what()));
    }
}

void DestWriter::say(const std::string& text) const noexcept {
    try {
        if (set_.log)
            set_.log(text);
    } catch (...) { // the failure of a log cannot be logged
    }
}

} // namespace velmora
