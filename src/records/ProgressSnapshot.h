#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// How far a run has come, at one moment.
struct ProgressSnapshot {
    enum class Phase { copy, flush, verify, report, done };

    Phase phase = Phase::copy;
    std::int64_t totalBytes = 0;
    std::int64_t totalFiles = 0;
    std::int64_t fileIndex = 0;
    std::string currentFile;
    std::int64_t readBytes = 0;              // from the card: what needed no reading is not among them
    std::int64_t checkedBytes = 0;           // read of part files that an interrupted run has left …
    std::int64_t bytesToCheck = 0;           // … and have to be
    std::vector<std::int64_t> writtenBytes;  // per destination
    std::vector<std::int64_t> bytesToWrite;  // per destination: what this run still means to write, and has written
    std::vector<std::int64_t> handledBytes;  // per destination: of these, written or given up
    std::vector<std::int64_t> verifiedBytes; // per destination
    std::vector<std::int64_t> bytesToVerify; // per destination; 0 before its read-back begins
    std::int64_t errors = 0;
    std::vector<std::string> verifyingFiles;
};

std::string_view name(ProgressSnapshot::Phase phase) noexcept;

} // namespace velmora
