#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::VerifyOptions {

// The destination that the user wants the renderer to read: the fixed choice, counted from 1, else what the setting
// "verifyPrimary" says. None where neither names an existing destination: then the one written fastest is read.
std::optional<std::size_t> primaryIndex(std::string_view setting, std::optional<std::int64_t> fixed,
                                        std::size_t destinations);

// What is wrong with the fixed choice; none when it can stand.
std::optional<std::string> primaryProblem(std::int64_t fixed, std::size_t destinations);

} // namespace velmora::VerifyOptions
