#include "OnDisk.h"
#include "base/RelativePath.h"
#include "verify/BackupVerifier.h"

#include <set>

// A checksum list of any tool: each file comes once, with a digest, and none lies outside of the card folder.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    fuzz::onDisk("CARD/_REPORT/CARD.xxh64", data, size);
    std::vector<std::string> problems;
    const auto files = BackupVerifier::hashLists(fuzz::folder() + "/CARD", problems);
    if (!files)
        return 0;
    std::set<std::string> seen;
    for (const BackupVerifier::Expected& file : *files)
        if (!isSafeRelative(file.path) || file.hashes.empty() || !seen.insert(file.path).second)
            std::abort();
    return 0;
}
