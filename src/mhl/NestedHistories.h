#pragma once

#include "base/Errors.h"
#include "mhl/MHLHistory.h"

#include <cstddef>
#include <string>
#include <vector>

namespace velmora {

// The history of a folder inside the card folder.
struct NestedHistory {
    std::string folder; // relative to the card folder
    MHLHistory history; // its paths are relative to `folder`
};

// A tool may keep a history of its own in a folder of the tree. The generations above it name its files in their
// `references`, each with a digest, and list nothing of that folder themselves. Histories may be nested in nested ones.
//
// References are hostile: one that would lead out of its folder or through a link is told and never opened, and depth,
// number and total length are bounded.
struct NestedHistories {
    static constexpr int maxDepth = 16;
    static constexpr std::size_t maxHistories = 1000;

    std::vector<NestedHistory> found;  // sorted by folder
    std::vector<std::string> unread;   // folders whose history is there and cannot be read
    std::vector<std::string> problems; // sentences for the user: also the chain problems of each, with its folder

    // Throws Cancelled. What keeps one history from being read is a problem.
    static NestedHistories read(const std::string& cardPath, const MHLHistory& top,
                                const IsCancelled& isCancelled = {});
};

} // namespace velmora
