#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace velmora {

// C4 identifiers: "c4" and 88 digits in base 58 of the SHA-512 of the content. Case matters.
namespace C4 {

inline constexpr std::size_t length = 90;

std::string ofBytes(std::string_view bytes);
std::string fromSHA512(std::span<const std::uint8_t, 64> digest);

} // namespace C4

} // namespace velmora
