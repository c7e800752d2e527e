#pragma once

#include "memory/CardRecord.h"
#include "mhl/MHLHistory.h"
#include "mhl/NestedHistories.h"
#include "verify/VerifyResult.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace velmora {

// The files that are to be read in a card folder according to its records, and what else the records say.
struct VerifyTask {
    // One file. Every digest must hold.
    struct Expected {
        std::string path;
        std::optional<std::int64_t> size;
        std::vector<MHLHash> hashes;
    };
    // The patterns of a history count below its folder.
    struct Ignore {
        std::string folder; // relative to the card folder; empty for the card folder itself
        std::vector<std::string> patterns;
    };

    std::vector<Expected> files;   // by path
    std::set<std::string> known;   // every path that a record names
    std::set<std::string> renamed; // former names of files, by a later generation of a history
    std::vector<Ignore> ignore;    // one for each history

    static VerifyTask fromHistory(const MHLHistory& history, const NestedHistories& nested, VerifyResult& result);
    static VerifyTask fromLists(std::vector<Expected> listed, VerifyResult& result);

    // Adds what only the reports record. A copy that was never read back is in no generation of the ASC MHL; without
    // its digest from the report, a backup made without verification would pass with nothing looked at. A file that
    // never came off the card is not there either; without it a backup that broke off would pass as whole. `open` is
    // the generation that waits for its verification; its files are not judged.
    void addFromReports(const CardRecord& record, std::optional<std::int64_t> open, VerifyResult& result);

private:
    void addHistory(const std::string& folder, const MHLHistory& history, VerifyResult& result,
                    std::map<std::string, Expected>& expected);
};

} // namespace velmora
