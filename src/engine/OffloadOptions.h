#pragma once

#include "records/CardKey.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>

namespace velmora {

// Thrown out of a run by the `crashAfterBlock` hook: everything stops as a crash would stop it, nothing is tidied up.
class SimulatedCrash : public std::exception {
public:
    const char* what() const noexcept override { return "simulated crash"; }
};

// The tuning of the copy engine. The defaults keep 256 MiB of data in flight.
struct OffloadOptions {
    std::int64_t chunkSize = 16777216;          // bytes of one block: one read, one buffer, one block hash
    std::int64_t bufferCount = 16;              // buffers in the pool
    std::int64_t readRetries = 3;               // extra reads of a block after a source read error
    bool verify = true;                         // classic read-back after the copy
    std::int64_t fullSyncThreshold = 268435456; // a file of at least this size gets a full device flush of its own
    bool allowSameDevice = false;               // two destinations on one drive
    bool allowSourceVolume = false;             // a destination on the source's drive
    // Called with the index of each file before it is copied.
    std::function<void(std::int64_t)> beforeFileCopy;
    // The present identity of the card at this path; without it the volume itself is asked.
    std::function<std::optional<std::string>(const std::string&)> cardIdentity;
    // Called with the number of blocks read so far.
    std::function<void(std::int64_t)> afterChunkRead;
    // Called after each piece of the classic read-back.
    std::function<void()> afterVerifyChunk;
    // Tests give the medium of the source here, instead of asking its volume.
    std::function<std::optional<CardKey>(const std::string&)> cardMedium;
    // Asked with the file's and the block's index; true raises SimulatedCrash.
    std::function<bool(std::int64_t, std::int64_t)> crashAfterBlock;
    std::int64_t checkpointBlocks = 64; // a part checkpoint every this many blocks; below 1 means every block
    bool deferVerify = false;           // verification is left to the job
};

} // namespace velmora
