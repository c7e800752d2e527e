#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace velmora::Hex {

std::string of64(std::uint64_t value);                     // "%016llx"
std::string ofBytes(std::span<const std::byte> bytes);     // "%02x" each
std::string ofBytes(std::span<const unsigned char> bytes); // "%02x" each

// Exactly 16 hexadecimal digits of either case, nothing else.
std::optional<std::uint64_t> parse64(std::string_view text);
// True for exactly `digits` hexadecimal digits of either case.
bool isHex(std::string_view text, std::size_t digits);

} // namespace velmora::Hex
