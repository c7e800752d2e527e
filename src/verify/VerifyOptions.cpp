#include "verify/VerifyOptions.h"

#include "base/Text.h"

#include <fmt/format.h>

namespace velmora {

std::optional<std::size_t> VerifyOptions::primaryIndex(std::string_view setting, std::optional<std::int64_t> fixed,
                                                       std::size_t destinations) {
    if (fixed)
        return primaryProblem(*fixed, destinations) ? std::nullopt
                                                    : std::optional(static_cast<std::size_t>(*fixed - 1));
    return setting == "first" && destinations > 0 ? std::optional<std::size_t>(0) : std::nullopt;
}

std::optional<std::string> VerifyOptions::primaryProblem(std::int64_t fixed, std::size_t destinations) {
    if (fixed < 1)
        return fmt::format("--primary {}: destinations are numbered from 1 (the order of --dest).", fixed);
    const auto count = static_cast<std::int64_t>(destinations);
    if (fixed > count)
        return fmt::format("--primary {}: there {} only {} (numbered from 1 in the order of --dest).", fixed,
                           plural(count, "is", "are"), counted(count, "destination", "destinations"));
    return std::nullopt;
}

} // namespace velmora
