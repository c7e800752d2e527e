#include "base/Hex.h"

#include <algorithm>
#include <charconv>

namespace velmora::Hex {

namespace {

constexpr std::string_view digits = "0123456789abcdef";

template <class Value>
void append(std::string& text, Value value) {
    for (int shift = static_cast<int>(sizeof(Value)) * 8 - 4; shift >= 0; shift -= 4)
        text += digits[static_cast<std::size_t>(value >> shift) & 15];
}

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

} // namespace

std::string of64(std::uint64_t value) {
    std::string text;
    append(text, value);
    return text;
}

std::string ofBytes(std::span<const unsigned char> bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes)
        append(text, byte);
    return text;
}

std::string ofBytes(std::span<const std::byte> bytes) {
    return ofBytes(std::span(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
}

bool isHex(std::string_view text, std::size_t count) {
    return text.size() == count && std::all_of(text.begin(), text.end(), isHexDigit);
}

std::optional<std::uint64_t> parse64(std::string_view text) {
    if (!isHex(text, 16))
        return std::nullopt;
    std::uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return value;
}

} // namespace velmora::Hex
