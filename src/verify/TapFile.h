#pragma once

#include "base/Counter.h"
#include "verify/TapSource.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

namespace velmora {

class BlockVerifier;
class SerialQueue;

// Thrown when the file cannot be driven out of the system's memory, or nobody can tell: a tap would then hash memory,
// not the disk.
class TapRefused : public std::exception {
public:
    const char* what() const noexcept override { return "the file cannot be driven out of the system's memory"; }
};

// A copied file that an outside program reads while its blocks are verified: every block that comes off the disk goes
// through `verifier` once, whoever asked for it and in whatever order. Six blocks stay in memory, so that a short step
// back needs no second read; the last block of the file stays once it was read. The next block is fetched while one is
// handed out.
//
// After `dispose` nothing is read any more, and every call that waits here ends with Cancelled. Memory and descriptor
// are freed when the last reader has left; a disk that hangs keeps them, but nobody waits for it.
class TapFile : public TapSource {
public:
    static constexpr std::size_t cachedBlocks = 6;

    // Opens `cardPath`/`relative` past the page cache, following no link below `cardPath`, and tells the verifier its
    // length. Throws TapRefused and IOError.
    TapFile(const std::string& cardPath, const std::string& relative, const std::shared_ptr<BlockVerifier>& verifier);
    ~TapFile() override; // disposes; does not wait for the disk
    TapFile(const TapFile&) = delete;
    TapFile& operator=(const TapFile&) = delete;

    std::int64_t length() const noexcept override;
    std::size_t read(std::int64_t offset, std::span<std::byte> to) override;
    std::int64_t fromDisk() const noexcept override;

    void dispose(); // any thread, any number of times

private:
    class Blocks;
    std::shared_ptr<Blocks> blocks_; // shared with what reads ahead, which may hang
    std::unique_ptr<SerialQueue> ahead_;
};

} // namespace velmora
