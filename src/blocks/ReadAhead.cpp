#include "blocks/ReadAhead.h"

#include <algorithm>

namespace velmora {

namespace {

constexpr std::int64_t unit = 4096;
// A read of this length costs hardly more for each byte than a longer one.
constexpr std::int64_t shortPiece = std::int64_t{1} << 20;

std::int64_t unitsUp(std::int64_t bytes) { return (bytes + unit - 1) / unit * unit; }

} // namespace

// The reads of one file. At most one is waited for or worked on while the other is under way.
class ReadAhead::Reading {
public:
    Reading(ReadAhead& owner, UncachedReader& file, std::int64_t size) : owner_(owner), file_(file), size_(size) {
        const auto half = static_cast<std::int64_t>(owner.halves_[0].memory.size());
        piece_ = half;
        here_ = size <= std::min(half, shortPiece) || !owner.halved_;
        if (!here_ && !owner.reader_)
            owner.reader_.emplace("verify.read");
    }
    // Nobody writes into the memory any more when this returns.
    ~Reading() {
        while (arrived_ < started_)
            owner_.halves_[arrived_++ % 2].done.acquire();
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    // Behind the expected end one more read is made only when all before it were full: a file may have grown.
    void keepGoing() {
        const std::size_t most = here_ ? 1 : 2;
        while (started_ - takenBack_ < most && (asked_ < size_ || started_ == takenBack_))
            start();
    }

    // The next piece; empty at the end. Throws what the read has thrown.
    std::span<const std::byte> next() {
        Half& half = owner_.halves_[arrived_ % 2];
        half.done.acquire();
        ++arrived_;
        if (half.error)
            std::rethrow_exception(half.error);
        ended_ = half.got < half.wanted.size();
        return half.wanted.first(half.got);
    }
    // The caller has done with the piece.
    void giveBack() { ++takenBack_; }
    bool ended() const { return ended_; }

private:
    void start() {
        Half& half = owner_.halves_[started_++ % 2];
        // No more is asked for than the file holds: Linux zeroes what a direct read leaves of a buffer behind the end
        // of a file, and for a small file that costs far more than reading it.
        // Towards the end the pieces get shorter: nothing is read any more while the last one is worked on.
        const std::int64_t left = size_ - asked_;
        const std::int64_t share = std::min(std::max(shortPiece, unitsUp(left / 2)), unitsUp(left));
        const std::int64_t wanted = std::clamp(share, unit, piece_);
        half.wanted = half.memory.first(static_cast<std::size_t>(wanted));
        half.offset = asked_;
        half.got = 0;
        half.error = nullptr;
        asked_ += wanted;
        if (here_)
            fill(half, file_);
        else
            owner_.reader_->async([&half, &file = file_] { fill(half, file); });
    }

    static void fill(Half& half, UncachedReader& file) {
        try {
            half.got = file.readAt(half.wanted, half.offset);
        } catch (...) {
            half.error = std::current_exception();
        }
        half.done.release();
    }

    ReadAhead& owner_;
    UncachedReader& file_;
    const std::int64_t size_;
    std::int64_t piece_ = 0;
    bool here_ = false; // on the caller's thread
    bool ended_ = false;
    std::int64_t asked_ = 0;
    std::size_t started_ = 0;
    std::size_t arrived_ = 0;
    std::size_t takenBack_ = 0;
};

ReadAhead::ReadAhead(std::span<std::byte> memory) : halved_(memory.size() >= 2 * unit) {
    const std::size_t half = halved_ ? memory.size() / 2 / unit * unit : memory.size();
    halves_[0].memory = memory.first(half);
    halves_[1].memory = memory.last(half);
}

ReadAhead::~ReadAhead() = default;

std::int64_t ReadAhead::read(UncachedReader& file, std::int64_t size, const Take& take) {
    Reading reading(*this, file, size);
    std::int64_t bytes = 0;
    do {
        reading.keepGoing();
        const auto piece = reading.next();
        if (!piece.empty())
            take(piece);
        bytes += static_cast<std::int64_t>(piece.size());
        reading.giveBack();
    } while (!reading.ended());
    return bytes;
}

} // namespace velmora
