#pragma once

#include "base/Timestamp.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// A digest as an ASC MHL generation holds it.
struct MHLHash {
    std::string algorithm; // the element's name: "xxh64", "xxh128", "md5", …
    std::string value;
    std::optional<std::string> action; // "original", "verified", "failed"
};

// What one generation says about one file.
struct MHLFileRecord {
    std::string path; // relative to the card folder; never empty, absolute, or with a "." or ".." component
    std::optional<std::int64_t> size;
    std::optional<Timestamp> modified;
    std::vector<MHLHash> hashes;
    std::int64_t generation = 0;
    std::optional<std::string> previousPath; // the file had this name in older generations

    bool failed() const noexcept; // any hash has the action "failed"
    const MHLHash* hash(std::string_view algorithm) const noexcept;
};

// The same record is seen from its generation and from the maps of the history.
using MHLRecord = std::shared_ptr<const MHLFileRecord>;

// A generation of the history of a folder inside, as a generation above names it.
struct MHLReference {
    std::string path; // of the file, relative to the folder of the history that names it; as safe as that of a record
    std::string c4;
};

struct MHLGeneration {
    std::int64_t seq = 0;
    std::string fileName;
    std::string tool; // who wrote it
    std::vector<std::string> ignore;
    std::vector<MHLRecord> files;
    std::vector<MHLReference> references;
    std::vector<std::string> refusedPaths; // paths that would leave the card folder; they are in no record
};

struct MHLChainEntry {
    std::int64_t seq = 0;
    std::string path;
    std::string c4;
};

// A file with the ending of a generation that the chain does not name. A write that died before its last step leaves
// one.
struct MHLUnchained {
    std::string fileName;
    std::optional<std::int64_t> number; // the number in the file name
};

// The ASC MHL of one card folder: what every file is supposed to be, and all that is wrong with the chain.
struct MHLHistory {
    std::vector<MHLGeneration> generations;    // by ascending number
    std::map<std::string, MHLRecord> files;    // the newest record of each path
    std::map<std::string, MHLRecord> lastGood; // the newest record that is not failed and holds a digest
    std::vector<std::string> ignore;           // the patterns of the newest generation
    std::vector<MHLChainEntry> chain;          // by ascending number
    bool chainRead = false;                    // a chain file is there and could be read
    std::set<std::int64_t> changed;            // generations whose file is not what the chain says
    std::vector<MHLUnchained> unchained;
    std::vector<std::string> chainProblems; // sentences for the user
    std::vector<std::string> refusedPaths;  // of all generations

    bool exists = false;                       // the folder holds a chain or a generation
    std::int64_t lastChained() const noexcept; // 0 without a chain
    bool ignoresReportFolder() const;
    // The problems that a crashed write of `generation` does not explain: a planner that finishes that generation
    // judges by these.
    std::vector<std::string> problemsBeside(std::int64_t generation) const;
};

} // namespace velmora
