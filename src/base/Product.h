#pragma once

#include <string>
#include <string_view>

namespace velmora::Product {

inline constexpr std::string_view name = "Velmora";
inline constexpr std::string_view cli = "velmora";
inline constexpr std::string_view version = VELMORA_VERSION;

// The name to show for a record's `tool`: records without one, or that an earlier build signed as "offload" in any
// case, show the product's name.
std::string toolName(std::string_view tool);

} // namespace velmora::Product
