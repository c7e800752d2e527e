#pragma once

#include "base/Errors.h"
#include "records/Clip.h"

#include <string>
#include <vector>

namespace velmora {

class Console;

// The clips of a folder, and how much of it could not be looked at.
struct FoundClips {
    std::vector<Clip> clips;
    std::size_t uncopied = 0;  // names that no record can hold, and folders that cannot be listed
    bool mayLackClips = false; // one of those is a clip by its name, or a folder

    // Says each uncopied one with its reason.
    static FoundClips of(const std::string& source, Console& console, const IsCancelled& isCancelled);
};

} // namespace velmora
