#include "blocks/C4.h"

#include "blocks/HashStreams.h"

#include <array>

namespace velmora::C4 {

namespace {

constexpr std::string_view alphabet = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
// 58^5 is the largest power of 58 below 2^32: one division of the number yields five digits.
constexpr std::uint64_t divisor = 58ULL * 58 * 58 * 58 * 58;
constexpr int digitsPerDivision = 5;

} // namespace

std::string fromSHA512(std::span<const std::uint8_t, 64> digest) {
    std::array<std::uint32_t, 16> number{}; // most significant word first
    for (std::size_t i = 0; i < digest.size(); ++i) {
        number[i / 4] = number[i / 4] << 8 | digest[i];
    }
    std::string id(length, '1');
    id[0] = 'c';
    id[1] = '4';
    std::size_t end = length;
    while (end > 2) { // 88 digits hold any 512 bits, so the number is 0 when they are used up
        std::uint64_t rest = 0;
        for (std::uint32_t& word : number) {
            const std::uint64_t part = rest << 32 | word;
            word = static_cast<std::uint32_t>(part / divisor);
            rest = part % divisor;
        }
        for (int i = 0; i < digitsPerDivision && end > 2; ++i) {
            id[--end] = alphabet[rest % 58];
            rest /= 58;
        }
    }
    return id;
}

std::string ofBytes(std::string_view bytes) {
    CryptoStream hash(CryptoStream::Kind::sha512);
    hash.update(bytes.data(), bytes.size());
    const std::vector<std::uint8_t> digest = hash.finish();
    return fromSHA512(std::span<const std::uint8_t, 64>(digest.data(), 64));
}

} // namespace velmora::C4
