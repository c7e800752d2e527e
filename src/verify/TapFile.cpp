#include "verify/TapFile.h"

#include "base/Errors.h"
#include "base/Mutex.h"
#include "base/SerialQueue.h"
#include "blocks/BlockPass.h"
#include "blocks/BlockVerifier.h"
#include "blocks/CacheProbe.h"
#include "platform/File.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace velmora {

namespace {

// Read piece by piece, so that the count of bytes shows early that a disk hangs.
constexpr std::size_t slice = 1048576;
constexpr std::int64_t page = 4096;

} // namespace

// The open file and its blocks in memory. Each reader shares the ownership; the last one frees it.
class TapFile::Blocks : public std::enable_shared_from_this<Blocks> {
public:
    Blocks(UncachedReader file, std::string path, std::int64_t length, std::shared_ptr<BlockVerifier> verifier)
        : path_(std::move(path)), length_(length), blockSize_(verifier->manifest().blockSize),
          blockCount_(BlockManifest::countFor(length, blockSize_)),
          bufferBytes_(BlockPass::bufferBytes(blockSize_, length, path_)), verifier_(std::move(verifier)),
          file_(std::make_shared<UncachedReader>(std::move(file))) {}

    std::int64_t length() const noexcept { return length_; }
    std::int64_t fromDisk() const noexcept { return fromDisk_.value(); }
    std::size_t read(std::int64_t offset, std::span<std::byte> to, SerialQueue& ahead) EXCLUDES(gate_);
    void dispose() EXCLUDES(gate_);
    bool isReleased() EXCLUDES(gate_);

private:
    struct Block {
        std::int64_t number = 0;
        AlignedBuffer memory;
        std::span<const std::byte> bytes;
    };

    std::size_t copy(std::int64_t offset, std::span<std::byte> to, SerialQueue& ahead) REQUIRES(gate_);
    std::span<const std::byte> get(std::int64_t number) REQUIRES(gate_);
    std::span<const std::byte> insert(Block block) REQUIRES(gate_);
    void startAhead(std::int64_t number, SerialQueue& ahead) REQUIRES(gate_);
    void fetchAhead(std::int64_t number) EXCLUDES(gate_);
    Block readFromDisk(std::int64_t number) EXCLUDES(gate_);
    std::shared_ptr<UncachedReader> fileToRead() EXCLUDES(gate_);
    void releaseIfDone() EXCLUDES(gate_);

    const std::string path_;
    const std::int64_t length_;
    const std::int64_t blockSize_;
    const std::int64_t blockCount_;
    const std::size_t bufferBytes_;
    const std::shared_ptr<BlockVerifier> verifier_;
    Counter fromDisk_;

    Mutex gate_;
    Condition changed_;
    std::vector<Block> cache_ GUARDED_BY(gate_);             // oldest first
    std::set<std::int64_t> inFlight_ GUARDED_BY(gate_);      // blocks that somebody is reading
    std::int64_t users_ GUARDED_BY(gate_) = 0;               // requests and read-aheads at work
    bool disposed_ GUARDED_BY(gate_) = false;                // no new reads
    std::shared_ptr<UncachedReader> file_ GUARDED_BY(gate_); // none once all is released
};

std::size_t TapFile::Blocks::read(std::int64_t offset, std::span<std::byte> to, SerialQueue& ahead) {
    std::size_t copied = 0;
    std::exception_ptr error;
    {
        const MutexLock hold(gate_);
        if (disposed_)
            throw Cancelled();
        ++users_;
        try {
            copied = copy(offset, to, ahead);
        } catch (...) {
            error = std::current_exception();
        }
        --users_;
    }
    releaseIfDone();
    if (error)
        std::rethrow_exception(error);
    return copied;
}

std::size_t TapFile::Blocks::copy(std::int64_t offset, std::span<std::byte> to, SerialQueue& ahead) {
    std::size_t copied = 0;
    while (copied < to.size()) {
        const std::int64_t position = offset + static_cast<std::int64_t>(copied);
        if (position >= length_)
            break;
        const std::int64_t number = position / blockSize_;
        const auto within = static_cast<std::size_t>(position % blockSize_);
        // The gate is held from here on: nobody drops the block before its bytes are copied.
        const std::span<const std::byte> block = get(number);
        startAhead(number + 1, ahead);
        if (block.size() <= within)
            break; // the file has become shorter
        const auto piece = block.subspan(within, std::min(to.size() - copied, block.size() - within));
        std::memcpy(to.data() + copied, piece.data(), piece.size());
        copied += piece.size();
    }
    return copied;
}

std::span<const std::byte> TapFile::Blocks::get(std::int64_t number) {
    while (!disposed_ && inFlight_.contains(number))
        changed_.wait(gate_);
    if (disposed_)
        throw Cancelled();
    if (const auto found = std::ranges::find(cache_, number, &Block::number); found != cache_.end()) {
        std::rotate(found, found + 1, cache_.end()); // the block used last stands last
        return cache_.back().bytes;
    }
    inFlight_.insert(number);
    std::optional<Block> block;
    std::exception_ptr error;
    gate_.unlock();
    try {
        block = readFromDisk(number);
    } catch (...) {
        error = std::current_exception();
    }
    gate_.lock();
    inFlight_.erase(number);
    changed_.notifyAll();
    if (error)
        std::rethrow_exception(error);
    if (disposed_)
        throw Cancelled();
    return insert(std::move(*block));
}

std::span<const std::byte> TapFile::Blocks::insert(Block block) {
    // The index of a clip often stands at its end. It is read first, and again together with the last pictures. So the
    // last block stays in memory, and is read from the disk only once.
    if (cache_.size() >= cachedBlocks)
        cache_.erase(std::ranges::find_if(cache_, [&](const Block& b) { return b.number != blockCount_ - 1; }));
    cache_.push_back(std::move(block));
    return cache_.back().bytes;
}

void TapFile::Blocks::startAhead(std::int64_t number, SerialQueue& ahead) {
    if (number >= blockCount_ || disposed_ || inFlight_.contains(number) ||
        std::ranges::find(cache_, number, &Block::number) != cache_.end())
        return;
    inFlight_.insert(number);
    ++users_;
    try {
        ahead.async([self = shared_from_this(), number] { self->fetchAhead(number); });
    } catch (...) { // no memory: who needs the block reads it
        inFlight_.erase(number);
        --users_;
    }
}

// A failure stays silent: who needs the block reads it again and meets the error.
void TapFile::Blocks::fetchAhead(std::int64_t number) {
    std::optional<Block> block;
    try {
        block = readFromDisk(number);
    } catch (const std::exception&) {
        block.reset();
    }
    {
        const MutexLock hold(gate_);
        inFlight_.erase(number);
        if (block && !disposed_)
            insert(std::move(*block));
        --users_;
        changed_.notifyAll();
    }
    releaseIfDone();
}

TapFile::Blocks::Block TapFile::Blocks::readFromDisk(std::int64_t number) {
    Block block{number, AlignedBuffer(bufferBytes_), {}};
    // A block that does not begin on a page is read in the window of whole pages around it.
    const std::int64_t start = number * blockSize_;
    const auto lead = static_cast<std::size_t>(start % page);
    const auto wanted = static_cast<std::size_t>(std::min(blockSize_, length_ - start));
    const std::size_t window = std::min((lead + wanted + page - 1) / page * page, block.memory.size());
    std::size_t got = 0;
    while (got < window) {
        const auto file = fileToRead();
        const auto piece = block.memory.span().subspan(got, std::min(slice, window - got));
        const std::size_t n =
            file->readAt(piece, start - static_cast<std::int64_t>(lead) + static_cast<std::int64_t>(got));
        fromDisk_.add(static_cast<std::int64_t>(n));
        got += n;
        if (n < piece.size())
            break;
    }
    if (got > lead) {
        block.bytes = std::span<const std::byte>(block.memory.span()).subspan(lead, std::min(wanted, got - lead));
        verifier_->feed(start, block.bytes);
    }
    return block;
}

std::shared_ptr<UncachedReader> TapFile::Blocks::fileToRead() {
    const MutexLock hold(gate_);
    if (disposed_)
        throw Cancelled();
    return file_;
}

void TapFile::Blocks::dispose() {
    {
        const MutexLock hold(gate_);
        disposed_ = true;
        changed_.notifyAll();
    }
    releaseIfDone();
}

bool TapFile::Blocks::isReleased() {
    const MutexLock hold(gate_);
    return !file_;
}

void TapFile::Blocks::releaseIfDone() {
    std::vector<Block> memory;
    std::shared_ptr<UncachedReader> file;
    const MutexLock hold(gate_);
    if (!disposed_ || users_ > 0 || !inFlight_.empty())
        return;
    memory.swap(cache_);
    file.swap(file_);
}

TapFile::TapFile(const std::string& cardPath, const std::string& relative,
                 const std::shared_ptr<BlockVerifier>& verifier) {
    const std::string path = cardPath + "/" + relative;
    // Opened first: this is what refuses a link and a path that leads away.
    UncachedReader file = UncachedReader::beneath(cardPath, relative);
    if (!CacheProbe::driveOut(path))
        throw TapRefused();
    const std::int64_t length = file.facts().size;
    blocks_ = std::make_shared<Blocks>(std::move(file), path, length, verifier);
    ahead_ = std::make_unique<SerialQueue>("offload.tap.readahead");
    verifier->observeLength(length);
}

TapFile::~TapFile() {
    blocks_->dispose();
    if (blocks_->isReleased())
        return;
    // A read is under way, and its disk may hang for good. A thread of its own waits for it.
    try {
        std::thread([queue = std::move(ahead_)] {}).detach();
    } catch (const std::exception&) { // no thread: then the reading is waited for here
    }
}

std::int64_t TapFile::length() const noexcept { return blocks_->length(); }

std::size_t TapFile::read(std::int64_t offset, std::span<std::byte> to) { return blocks_->read(offset, to, *ahead_); }

std::int64_t TapFile::fromDisk() const noexcept { return blocks_->fromDisk(); }

void TapFile::dispose() { blocks_->dispose(); }

} // namespace velmora
