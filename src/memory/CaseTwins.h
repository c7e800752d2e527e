#pragma once

#include "memory/CardRecord.h"
#include "records/SourceFile.h"

#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace velmora {

// The names of a card and its backup that differ only in case. Records are looked up without regard to case, since a
// card or a disk may fold it. Two files that share such a key would stand in for each other, so their paths are
// compared byte for byte. The records are asked too: a card that lost one of two such files shows only the other.
class CaseTwins {
public:
    CaseTwins() = default;
    CaseTwins(const std::vector<SourceFile>& files, std::span<const CardRecord> records);

    bool contains(std::string_view relPath) const;
    // What a file is filed under: its path key, or the path itself where the key is shared.
    std::string nameOf(std::string_view relPath) const;

private:
    std::unordered_set<std::string> keys_; // of the shared names; empty on nearly every card
};

} // namespace velmora
