#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::VerifyOptions {

// The destination that the user wants the renderer to read: the fixed choice, counted from 1, else what the setting
// "verifyPrimary" says. None: whichever was written fastest. Also when there is no such destination.
std::optional<std::size_t> primaryIndex(std::string_view setting, std::optional<std::int64_t> fixed,
                                        std::size_t destinations);

// What is wrong with the fixed choice; none when it can stand.
std::optional<std::string> primaryProblem(std::int64_t fixed, std::size_t destinations);

} // namespace velmora::VerifyOptions
