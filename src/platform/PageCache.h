#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace velmora {

// What of a file lies in the system's memory, and how to drive it out, so that a read-back comes off the disk.
namespace PageCache {

// (resident pages, all pages) of a file; (0, 0) for an empty one. Nothing when the question cannot be answered: the
// file cannot be opened, or this user is not told the truth about it (neither owner nor allowed to write).
std::optional<std::pair<std::int64_t, std::int64_t>> residentPages(const std::string& path);

// Writes out what is dirty and drops the file's pages. True when every stretch was given up to the kernel for dropping;
// whether they have really gone is for residentPages to say (tmpfs has nowhere else to keep them). Throws IOError when
// writing out failed: what was dirty is lost, though the pages may remain and read well.
bool evict(const std::string& path);

} // namespace PageCache

} // namespace velmora
