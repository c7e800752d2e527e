#include "job/JobStatus.h"

#include "base/Text.h"

#include <algorithm>

namespace velmora {

void JobStatus::addWarning(const std::string& warning) {
    if (std::ranges::find(warnings, warning) == warnings.end())
        warnings.push_back(warning);
}

std::optional<std::string> JobStatus::warning() const {
    return warnings.empty() ? std::nullopt : std::optional(join(warnings, "\n"));
}

} // namespace velmora
