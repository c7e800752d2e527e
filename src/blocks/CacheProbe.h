#pragma once

#include "platform/VolumeFacts.h"

#include <cstdint>
#include <optional>
#include <string>

namespace velmora {

// Tells whether a read-back can come off the disk. Data that is still in the page cache proves nothing about the disk.
// Only `driveOut` throws. Only `blind` keeps state: it finds its answer once per process. Any thread may call them.
namespace CacheProbe {

struct Pages {
    std::int64_t resident = 0;
    std::int64_t total = 0;
};

std::optional<Pages> residentPages(const std::string& path); // empty: cannot tell
bool evict(const std::string& path);                         // true when every stretch of the file was given up
// True when nothing of the file is in memory, after driving it out if need be. False also when that cannot be told.
bool readsFromDisk(const std::string& path);
// The same for a read-back that is to prove something: throws IOError when the file had to be flushed first and that
// failed. The kernel may then hold the lost bytes as clean, and show them as if they stood on the disk.
bool driveOut(const std::string& path);
// True when the system does not show what is in its cache.
bool blind();
// Why this card folder cannot be verified by data that an outside program reads; empty: no obstacle. Writes and removes
// a small file in its _REPORT folder.
std::optional<std::string> problem(const std::string& cardPath, const VolumeFacts::System& system = {});

} // namespace CacheProbe

} // namespace velmora
