#include "job/HeldFolders.h"

#include "base/Errors.h"

#include <algorithm>
#include <fmt/format.h>

namespace velmora {

HeldFolders::HeldFolders(const std::vector<std::string>& cardPaths) : cardPaths_(cardPaths) {
    for (const std::string& cardPath : cardPaths) {
        try {
            held_.emplace_back(cardPath);
        } catch (const IOError&) {
            continue; // `check` tells of it when it matters
        }
    }
}

void HeldFolders::check(const std::string& cardPath) const {
    const auto held = std::ranges::find(held_, cardPath, &HeldFolder::path);
    try {
        if (held == held_.end())
            HeldFolder(cardPath).check(); // says why it cannot be opened
        else
            held->check();
    } catch (const IOError& error) {
        throw OffloadError::failed(fmt::format("{} is not there any more ({}) — the disk was unmounted or pulled while "
                                               "the run was at work",
                                               cardPath, error.what()));
    }
    if (held == held_.end())
        throw OffloadError::failed(cardPath + " was not there when the run began");
}

std::vector<std::string> HeldFolders::problems() const {
    std::vector<std::string> found;
    for (const std::string& cardPath : cardPaths_) {
        try {
            check(cardPath);
        } catch (const std::exception& error) {
            found.emplace_back(error.what());
        }
    }
    return found;
}

bool HeldFolders::anyOffDevice(std::uint64_t device) const {
    return std::ranges::any_of(held_, [&](const HeldFolder& folder) { return folder.device() != device; });
}

} // namespace velmora
