#pragma once

#include "records/HistoryEntry.h"

#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The texts of history.json, {"entries": […], "version": 1}, and of verifications.json, {"verifications": […],
// "version": 1}: pretty-printed, keys sorted. Pure functions.
namespace HistoryFile {

enum class State {
    good,
    newer,   // written by a newer version of the program: read as far as it can be, and never written
    damaged, // cannot be told from garbage
};

struct Contents {
    State state = State::good;
    bool understood = true; // false: a newer version has written it so that nothing can be read
    std::vector<HistoryEntry> entries;
    std::vector<HistoryVerification> verifications;
};

// `text` is not trusted. An entry that cannot be read makes the whole damaged: it would be lost at the next write.
Contents read(std::string_view text);
std::string write(const std::vector<HistoryEntry>& entries);
Contents readVerifications(std::string_view text);
std::string write(const std::vector<HistoryVerification>& verifications);

// True for a valid id. Ids are checked because file names are made of them.
bool isId(std::string_view id);

} // namespace HistoryFile

} // namespace velmora
