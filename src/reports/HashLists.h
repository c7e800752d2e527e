#pragma once

#include "base/Errors.h"
#include "mhl/MHLHistory.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

struct OffloadReport;

// The checksum lists of a card folder, `_REPORT/{cardName}.xxh64` and `{cardName}.md5`, in the form that the usual
// command-line tools check: digest, two blanks, path relative to the card folder, line feed.
//
// One list spans all generations. It is always replaced as a whole (temporary name, flush, rename), never appended to
// in place: a power cut leaves the list before or the list after. Lines that are there stay as they are; paths that
// the ASC MHL history knows and the list has lost are put back from it whenever the list is written or healed.
namespace HashLists {

// The list of one report, for the algorithm of that name; lines only for files that have the digest.
std::string of(const OffloadReport& report, std::string_view algorithm);
// The same for the report's main algorithm: xxh64, or md5 when there is no other.
std::string of(const OffloadReport& report);

// Lines without their line feeds; empty ones are dropped.
std::vector<std::string_view> listLines(std::string_view list);

struct Standing {
    std::string list;   // as on disk, ending in a line feed unless empty
    std::string missed; // lines that the ASC MHL history has and neither the list nor `alsoListed` names
};
// `path` is the list's file; paths are compared without case, unless two files of the history differ only in case.
Standing listAndMissed(const std::string& path, const std::string& cardPath, const MHLHistory& history,
                       std::span<const std::string> alsoListed, std::string_view algorithm,
                       const IsCancelled& isCancelled = {});

// Brings the lists of a card folder up to a report. The first generation writes them whole, unless `merge` is set and
// a list exists; every other call adds what is missing and writes nothing when nothing is.
void write(const OffloadReport& report, const std::string& cardPath, bool merge);

// Puts back what the lists have lost, from the ASC MHL history of the folder. Throws Cancelled before anything of a
// list is written. True when anything was written.
bool heal(const std::string& cardPath, const std::string& cardName, const MHLHistory& history,
          const IsCancelled& isCancelled = {});

} // namespace HashLists

} // namespace velmora
