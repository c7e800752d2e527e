#include "blocks/HashAlgo.h"

#include "base/Hex.h"
#include "blocks/C4.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace velmora::HashAlgo {

namespace {

// The names are ASCII; the user's language must not change what they fold to.
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](char c) { return lower(c); });
    return out;
}

std::string plainHex(std::span<const std::uint8_t> digest) { return Hex::ofBytes(digest); }

std::string c4Text(std::span<const std::uint8_t> digest) { return C4::fromSHA512(digest.first<64>()); }

} // namespace

std::unique_ptr<RunningHash> make(std::string_view name) {
    if (name == "xxh64") {
        return std::make_unique<X64>();
    }
    if (name == "md5") {
        return std::make_unique<Kit>(CryptoStream::Kind::md5, plainHex);
    }
    if (name == "sha1") {
        return std::make_unique<Kit>(CryptoStream::Kind::sha1, plainHex);
    }
    if (name == "xxh3") {
        return std::make_unique<X3>();
    }
    if (name == "xxh128") {
        return std::make_unique<X128>();
    }
    if (name == "c4") {
        return std::make_unique<Kit>(CryptoStream::Kind::sha512, c4Text);
    }
    return nullptr;
}

std::string label(std::string_view name) {
    static constexpr std::array<std::string_view, known.size()> labels{"xxHash64", "MD5",       "SHA-1",
                                                                       "xxHash3",  "xxHash128", "C4"};
    const auto* const found = std::find(known.begin(), known.end(), lower(name));
    return std::string(found == known.end() ? name : labels[static_cast<std::size_t>(found - known.begin())]);
}

bool equal(std::string_view algorithm, std::string_view a, std::string_view b) {
    return lower(algorithm) == "c4" ? a == b : lower(a) == lower(b);
}

void X64::update(const std::byte* bytes, std::size_t count) { s_.update(bytes, count); }
std::string X64::value() { return fmt::format("{:016x}", s_.digest()); }

void X3::update(const std::byte* bytes, std::size_t count) { s_.update(bytes, count); }
std::string X3::value() { return fmt::format("{:016x}", s_.digest()); }

void X128::update(const std::byte* bytes, std::size_t count) { s_.update(bytes, count); }
std::string X128::value() { return s_.hex(); }

Kit::Kit(CryptoStream::Kind kind, Finish finish) : h_(kind), finish_(std::move(finish)) {}
void Kit::update(const std::byte* bytes, std::size_t count) { h_.update(bytes, count); }
std::string Kit::value() { return finish_(h_.finish()); }

} // namespace velmora::HashAlgo
