#include "verify/VerifySession.h"

#include "base/Msg.h"
#include "base/Mutex.h"
#include "base/RelativePath.h"
#include "blocks/BlockVerifier.h"
#include "clips/ClipDetector.h"
#include "disks/SpacePlanner.h"
#include "engine/ReportBuilder.h"
#include "records/OffloadReport.h"
#include "verify/RangeServer.h"
#include "verify/TapFile.h"
#include "verify/TapRegistry.h"
#include "verify/VerifyNotes.h"
#include "verify/VerifyReading.h"
#include "verify/WatchedThread.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <set>
#include <utility>

namespace velmora {

using VerifyReading::WorkList;

namespace {

std::vector<std::optional<std::string>> reasonsFor(const VerifySession::Inputs& inputs) {
    std::vector<std::optional<std::string>> why = inputs.classicWhy;
    why.resize(inputs.cardPaths.size());
    return why;
}

// The destination that the user wants, else the fastest one; only those that a render can verify.
std::optional<std::size_t> choosePrimary(const VerifySession::Inputs& inputs) {
    const auto why = reasonsFor(inputs);
    const auto rate = [&](std::size_t d) { return d < inputs.rates.size() ? inputs.rates[d] : 0.0; };
    std::optional<std::size_t> best;
    for (std::size_t d = 0; d < why.size(); ++d) {
        if (why[d])
            continue;
        if (inputs.preferred == d)
            return d;
        if (!best || rate(d) > rate(*best))
            best = d;
    }
    return best;
}

// Files that a render can be expected to read in a way that verifies them.
std::vector<bool> proxyFilesOf(const VerifyFiles& files) {
    std::vector<SourceFile> sources;
    for (const VerifyFiles::File& file : files.files())
        sources.push_back({file.path, file.size, {}});
    std::vector<bool> found(files.files().size());
    for (const Clip& clip : ClipDetector::detect(sources))
        if (TapRegistry::mode(clip) != TapMode::none)
            for (const std::string& path : clip.segments)
                found[files.indexOf(path).value()] = true;
    return found;
}

} // namespace

class VerifySession::Core {
public:
    Core(const OffloadReport& report, Inputs inputs, PauseGate& gate, Limits limits)
        : primary(choosePrimary(inputs)), why(reasonsFor(inputs)),
          shared(std::make_shared<VerifyShared>(report, std::move(inputs.cardPaths), std::move(inputs.blocks),
                                                inputs.blockSize, std::move(inputs.check))),
          gate_(gate), limits_(limits), cardBlock_(std::move(inputs.cardBlock)) {
        for (std::size_t d = 0; d < why.size(); ++d)
            if (d != primary && !why[d])
                why[d] = VIPMsg::classicSecondary;
        if (primary)
            proxyFiles_ = proxyFilesOf(shared->files);
        std::ranges::transform(shared->cardPaths, std::back_inserter(disks_), ReportBuilder::diskName);
    }

    std::optional<std::size_t> primary;
    std::vector<std::optional<std::string>> why; // none for the primary
    const std::shared_ptr<VerifyShared> shared;

    bool isOpen() const EXCLUDES(lock_);
    void startBackground() EXCLUDES(lock_);
    std::unique_ptr<Lease> readAhead(const Clip& clip);
    std::unique_ptr<Lease> tap(const std::string& path);
    Outcome finish(PauseGate::Worker* pausing, const IsCancelled& isCancelled);
    void close();
    std::vector<std::string> currentFiles() const EXCLUDES(lock_);

private:
    struct Reader {
        std::shared_ptr<WatchedThread> thread;
        std::set<std::size_t> destinations; // whose files are lost when it is given up
    };
    void addReader(std::string_view volume, WorkList work, bool gated) EXCLUDES(lock_);
    void keep(Reader reader) EXCLUDES(lock_);
    bool isOfRender(std::size_t destination, std::size_t file) const;
    std::shared_ptr<TapFile> openTap(std::size_t file) const;
    std::shared_ptr<RangeServer> server() EXCLUDES(lock_);
    void awaitReaders(const IsCancelled& isCancelled) EXCLUDES(lock_);

    PauseGate& gate_;
    const Limits limits_;
    const std::function<std::optional<std::uint64_t>(std::size_t, std::int64_t)> cardBlock_;
    std::vector<bool> proxyFiles_;   // empty without a primary
    std::vector<std::string> disks_; // their names, asked for while they answer

    mutable Mutex lock_;
    bool started_ GUARDED_BY(lock_) = false;
    bool finished_ GUARDED_BY(lock_) = false; // no more leases
    std::vector<Reader> readers_ GUARDED_BY(lock_);
    std::shared_ptr<RangeServer> server_ GUARDED_BY(lock_);
};

bool VerifySession::Core::isOpen() const {
    const MutexLock hold(lock_);
    return !finished_ && !shared->traffic.isStopped();
}

bool VerifySession::Core::isOfRender(std::size_t destination, std::size_t file) const {
    return primary == destination && proxyFiles_[file];
}

void VerifySession::Core::startBackground() {
    {
        const MutexLock hold(lock_);
        if (started_ || finished_ || shared->traffic.isStopped())
            return;
        started_ = true;
    }
    struct Volume {
        std::string key;
        WorkList work;
    };
    std::vector<Volume> volumes;
    std::string primaryKey;
    for (std::size_t d = 0; d < shared->cardPaths.size(); ++d) {
        const std::string key = SpacePlanner::volumeKey(shared->cardPaths[d]);
        if (primary == d)
            primaryKey = key;
        auto volume = std::ranges::find(volumes, key, &Volume::key);
        if (volume == volumes.end())
            volume = volumes.insert(volumes.end(), {key, {}});
        for (std::size_t file = 0; file < shared->files.files().size(); ++file)
            if (shared->files.isWritten(d, file) && !isOfRender(d, file))
                volume->work.push_back({d, file});
    }
    for (Volume& volume : volumes)
        if (!volume.work.empty())
            addReader(volume.key, std::move(volume.work), volume.key == primaryKey);
}

void VerifySession::Core::addReader(std::string_view volume, WorkList work, bool gated) {
    std::set<std::size_t> destinations;
    for (const VerifyReading::Work& one : work)
        destinations.insert(one.destination);
    auto body = [shared = shared, work = std::move(work), gated](WatchedThread& thread) {
        VerifyReading::inBackground(*shared, thread, work, gated);
    };
    keep({WatchedThread::start(fmt::format("offload.verify.{}", volume), gate_.work(), std::move(body)),
          std::move(destinations)});
}

void VerifySession::Core::keep(Reader reader) {
    const MutexLock hold(lock_);
    std::erase_if(readers_, [](const Reader& one) { return one.thread->isOver(); });
    readers_.push_back(std::move(reader));
}

std::unique_ptr<VerifySession::Lease> VerifySession::Core::readAhead(const Clip& clip) {
    WorkList work;
    for (const std::string& path : clip.segments)
        if (const auto file = shared->files.indexOf(path); file && shared->files.isWritten(*primary, *file))
            work.push_back({*primary, *file});
    if (work.empty())
        return nullptr;
    const TapTraffic::Passage passage(shared->traffic);
    const auto thread = WatchedThread::start("offload.verify.pre-read", nullptr,
                                             [shared = shared, work = std::move(work)](WatchedThread& self) {
                                                 VerifyReading::aheadOfRender(*shared, self, work);
                                             });
    keep({thread, {}});
    WatchedThread::await({thread}, limits_.prepare, {}, {});
    return std::unique_ptr<Lease>(new Lease);
}

// Null when the disk does not move. Throws what TapFile throws.
std::shared_ptr<TapFile> VerifySession::Core::openTap(std::size_t file) const {
    struct Opened {
        Mutex lock;
        std::shared_ptr<TapFile> tap GUARDED_BY(lock);
    };
    const auto opened = std::make_shared<Opened>(); // a tap that is opened too late is freed with this
    const auto thread = WatchedThread::start(
        "offload.verify.tap", nullptr, [shared = shared, d = *primary, file, opened](WatchedThread&) {
            shared->checkFolder(d);
            auto tap = std::make_shared<TapFile>(shared->cardPaths[d], shared->files.files()[file].path,
                                                 shared->files.verifier(d, file));
            const MutexLock hold(opened->lock);
            opened->tap = std::move(tap);
        });
    WatchedThread::await({thread}, limits_.prepare, {}, {});
    const MutexLock hold(opened->lock);
    return std::move(opened->tap);
}

std::shared_ptr<RangeServer> VerifySession::Core::server() {
    const MutexLock hold(lock_);
    if (!server_ && !shared->traffic.isStopped())
        server_ = std::make_shared<RangeServer>();
    return server_;
}

std::unique_ptr<VerifySession::Lease> VerifySession::Core::tap(const std::string& path) {
    const auto file = shared->files.indexOf(path);
    if (!file || !shared->files.isWritten(*primary, *file))
        return nullptr;
    const std::shared_ptr<TapFile> tap = openTap(*file);
    const std::shared_ptr<RangeServer> serving = tap ? server() : nullptr;
    if (!serving)
        return nullptr;
    std::unique_ptr<Lease> lease(new Lease);
    const std::string url = serving->registerSource(tap, RelativePath::name(path));
    lease->url_ = url;
    lease->activity_ = [serving, url] { return serving->activity(url).value_or(0); };
    shared->files.beginTap(*primary, *file);
    shared->traffic.enter();
    lease->release_ = [shared = shared, d = *primary, file = *file, serving, url, tap] {
        serving->unregister(url);
        tap->dispose();
        shared->files.endTap(d, file);
        shared->traffic.leave();
    };
    return lease;
}

VerifySession::Outcome VerifySession::Core::finish(PauseGate::Worker* pausing, const IsCancelled& isCancelled) {
    const auto stopped = [&] { return shared->traffic.isStopped() || (isCancelled && isCancelled()); };
    startBackground();
    {
        const MutexLock hold(lock_);
        finished_ = true;
    }
    shared->traffic.finish();
    WorkList left;
    if (primary)
        for (std::size_t file = 0; file < proxyFiles_.size(); ++file)
            if (proxyFiles_[file] && shared->files.isWritten(*primary, file))
                left.push_back({*primary, file});
    if (!left.empty() && !stopped())
        addReader("fill-in", std::move(left), false);
    {
        const PauseGate::Resting resting(pausing);
        awaitReaders(isCancelled);
    }
    shared->files.judgeAgain();
    Outcome outcome;
    outcome.verified = !stopped();
    if (outcome.verified)
        outcome.notes = verifyNotes(shared->files, disks_, cardBlock_);
    outcome.results = shared->files.results();
    outcome.throughCache = shared->files.cachedReads();
    return outcome;
}

void VerifySession::Core::awaitReaders(const IsCancelled& isCancelled) {
    std::vector<Reader> readers;
    {
        const MutexLock hold(lock_);
        readers = readers_;
    }
    WatchedThread::Threads threads;
    std::ranges::transform(readers, std::back_inserter(threads), &Reader::thread);
    const auto isHeld = [&] {
        if (isCancelled && isCancelled())
            shared->traffic.stop();
        return gate_.isHeld(); // a pause is no fault of a disk
    };
    WatchedThread::await(threads, limits_.read, isHeld, [&](std::size_t i) {
        for (const std::size_t d : readers[i].destinations)
            shared->files.failWritten(d, VIPMsg::verifyDiskHung);
    });
}

void VerifySession::Core::close() {
    shared->traffic.stop();
    std::shared_ptr<RangeServer> server;
    {
        const MutexLock hold(lock_);
        server.swap(server_);
    }
    if (server)
        server->close();
    awaitReaders({}); // the threads use the gate: each ends or is given up first
}

std::vector<std::string> VerifySession::Core::currentFiles() const {
    const MutexLock hold(lock_);
    std::vector<std::string> files;
    for (const Reader& reader : readers_)
        if (auto file = reader.thread->current(); file && std::ranges::find(files, *file) == files.end())
            files.push_back(std::move(*file));
    return files;
}

VerifySession::VerifySession(const OffloadReport& report, Inputs inputs, PauseGate& gate, Limits limits)
    : core_(std::make_unique<Core>(report, std::move(inputs), gate, limits)) {}

VerifySession::VerifySession(const OffloadReport& report, Inputs inputs, PauseGate& gate)
    : VerifySession(report, std::move(inputs), gate, Limits{}) {}

VerifySession::~VerifySession() {
    try {
        close();
    } catch (const std::exception&) { // no memory for the list of threads: they leave by themselves
    }
}

void VerifySession::startBackground() { core_->startBackground(); }

std::unique_ptr<VerifySession::Lease> VerifySession::prepare(const Clip& clip, std::size_t destination) {
    if (!core_->isOpen() || core_->primary != destination)
        return nullptr;
    try {
        switch (TapRegistry::mode(clip)) {
        case TapMode::preRead:
            return core_->readAhead(clip);
        case TapMode::http:
            return core_->tap(clip.path);
        case TapMode::none:
            break;
        }
    } catch (const std::exception&) { // no port or no thread: the render reads the file, and `finish` verifies it
    }
    return nullptr;
}

VerifySession::Outcome VerifySession::finish(PauseGate::Worker* pausing, const IsCancelled& isCancelled) {
    return core_->finish(pausing, isCancelled);
}

VerifySession::Outcome VerifySession::soFar() const {
    Outcome outcome;
    outcome.results = core_->shared->files.resultsSoFar();
    outcome.throughCache = core_->shared->files.cachedReads();
    return outcome;
}

void VerifySession::record(const Outcome& outcome, OffloadReport& report) const {
    for (std::size_t d = 0; d < outcome.results.size(); ++d)
        for (std::size_t file = 0; file < report.files.size(); ++file) {
            OffloadReport::FileEntry& entry = report.files[file];
            const DestFileResult& result = outcome.results[d].at(file);
            if (result.state == FileState::pending || d >= entry.destinations.size())
                continue; // nobody has read it: what the copy said stays
            entry.destinations[d] = name(result.state);
            entry.errors.resize(entry.destinations.size());
            entry.errors[d] = result.error;
        }
    if (outcome.verified) {
        report.verified = true;
        report.verifyPending.reset();
        for (std::size_t d = 0; d < report.destinations.size() && d < core_->why.size(); ++d) {
            report.destinations[d].verifyMethod = core_->primary == d ? "verify-in-proxy" : "read-back";
            report.destinations[d].verifyNote = core_->why[d];
        }
        if (!outcome.notes.empty()) {
            auto notes = report.verifyNotes.value_or(std::vector<std::string>{});
            notes.insert(notes.end(), outcome.notes.begin(), outcome.notes.end());
            report.verifyNotes = std::move(notes);
        }
    }
    report.countFiles();
}

void VerifySession::stop() { core_->shared->traffic.stop(); }

void VerifySession::close() { core_->close(); }

std::optional<std::size_t> VerifySession::primary() const noexcept { return core_->primary; }

std::vector<std::int64_t> VerifySession::bytesToVerify() const {
    std::vector<std::int64_t> bytes;
    for (std::size_t d = 0; d < core_->why.size(); ++d)
        bytes.push_back(core_->shared->files.toVerify(d));
    return bytes;
}

std::vector<std::int64_t> VerifySession::verifiedBytes() const {
    std::vector<std::int64_t> bytes;
    for (std::size_t d = 0; d < core_->why.size(); ++d)
        bytes.push_back(core_->shared->files.verifiedBytes(d));
    return bytes;
}

std::vector<std::string> VerifySession::currentFiles() const { return core_->currentFiles(); }

VerifySession::Lease::~Lease() {
    try {
        end();
    } catch (const std::exception&) { // no memory to take the address apart: the session closes it
    }
}

void VerifySession::Lease::end() {
    std::call_once(once_, [this] {
        if (release_)
            std::exchange(release_, nullptr)();
    });
}

} // namespace velmora
