#pragma once

#include "verify/TapTraffic.h"
#include "verify/VerifyFiles.h"

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace velmora {

class WatchedThread;

// What the threads of a session share. A thread whose disk hangs keeps it after the session has gone.
struct VerifyShared {
    using Check = std::function<void(const std::string& cardPath)>; // throws when the folder is gone; may be empty

    VerifyShared(const OffloadReport& report, std::vector<std::string> paths,
                 std::vector<std::vector<std::uint64_t>> blocks, std::int64_t blockSize, Check folderCheck)
        : files(report, paths.size(), std::move(blocks), blockSize), cardPaths(std::move(paths)),
          check(std::move(folderCheck)) {}

    VerifyFiles files;
    TapTraffic traffic;
    const std::vector<std::string> cardPaths;
    const Check check;

    // Throws OffloadError with the error text for a file in that folder.
    void checkFolder(std::size_t destination) const;
};

// What those threads do.
namespace VerifyReading {

struct Work {
    std::size_t destination = 0;
    std::size_t file = 0;
};
using WorkList = std::vector<Work>;

// Verifies the files one after another, at idle priority, behind all other readers of the disk. With `gated` it waits
// before each block while a clip is read for its render. A pause makes it wait between two files.
void inBackground(VerifyShared& shared, WatchedThread& thread, const WorkList& work, bool gated);

// Verifies files that a render is about to read. One that cannot be driven out of memory is left for later.
void aheadOfRender(VerifyShared& shared, WatchedThread& thread, const WorkList& work);

} // namespace VerifyReading

} // namespace velmora
