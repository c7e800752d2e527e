#include "records/OffloadPlan.h"

namespace velmora {

std::string_view name(PlanMode mode) noexcept {
    switch (mode) {
    case PlanMode::append:
        return "append";
    case PlanMode::repair:
        return "repair";
    case PlanMode::full:
        break;
    }
    return "full";
}

const FileTask& OffloadPlan::task(std::size_t file) const {
    static const FileTask plain;
    return tasks.empty() ? plain : tasks[file];
}

std::vector<std::string> OffloadPlan::cardPaths() const {
    if (fixedCardPaths)
        return *fixedCardPaths;
    std::vector<std::string> paths;
    for (const std::string& root : destRoots)
        paths.push_back((root.ends_with('/') ? root : root + "/") + date + "/" + cardName);
    return paths;
}

} // namespace velmora
