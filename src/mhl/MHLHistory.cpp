#include "mhl/MHLHistory.h"

#include "mhl/IgnorePatterns.h"
#include "mhl/MHLProblems.h"

#include <algorithm>

namespace velmora {

bool MHLFileRecord::failed() const noexcept {
    return std::any_of(hashes.begin(), hashes.end(), [](const MHLHash& h) { return h.action == "failed"; });
}

const MHLHash* MHLFileRecord::hash(std::string_view algorithm) const noexcept {
    const auto found =
        std::find_if(hashes.begin(), hashes.end(), [&](const MHLHash& h) { return h.algorithm == algorithm; });
    return found == hashes.end() ? nullptr : &*found;
}

std::int64_t MHLHistory::lastChained() const noexcept { return chain.empty() ? 0 : chain.back().seq; }

bool MHLHistory::ignoresReportFolder() const { return IgnorePatterns(ignore).ignored("_REPORT/x"); }

std::vector<std::string> MHLHistory::problemsBeside(std::int64_t generation) const {
    std::vector<std::string> explained;
    bool onlyThisOne = true;
    for (const MHLUnchained& file : unchained) {
        if (file.number == generation) {
            explained.push_back(MHLProblems::notInChain(file.fileName));
        } else {
            onlyThisOne = false;
        }
    }
    if (generation == 1 && onlyThisOne) {
        explained.push_back(MHLProblems::chainMissing()); // the first write was killed between its two files
    }
    std::vector<std::string> left;
    std::copy_if(chainProblems.begin(), chainProblems.end(), std::back_inserter(left), [&](const std::string& problem) {
        return std::find(explained.begin(), explained.end(), problem) == explained.end();
    });
    return left;
}

} // namespace velmora
