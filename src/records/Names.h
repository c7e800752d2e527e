#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace velmora {

// The case of an enumeration, counted from 0, whose name stands in the list.
template <class Enum, std::size_t n>
std::optional<Enum> caseNamed(std::string_view name, const std::array<std::string_view, n>& names) noexcept {
    for (std::size_t i = 0; i < n; ++i)
        if (names[i] == name)
            return static_cast<Enum>(i);
    return std::nullopt;
}

} // namespace velmora
