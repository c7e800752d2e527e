#include "base/Text.h"

#include <fmt/format.h>
#include <unicode/bytestream.h>
#include <unicode/coll.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>

namespace velmora {

namespace {

// ICU counts in 32 bits; no name or line comes near.
std::int32_t lengthOf(std::string_view text) {
    return static_cast<std::int32_t>(std::min<std::size_t>(text.size(), std::numeric_limits<std::int32_t>::max()));
}

// NOLINTNEXTLINE(bugprone-suspicious-stringview-data-usage): the length goes along, in the type of ICU
icu::StringPiece piece(std::string_view text) { return {text.data(), lengthOf(text)}; }

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

void appendCodePoint(std::string& text, UChar32 c) {
    std::array<char, U8_MAX_LENGTH> buffer;
    std::size_t length = 0;
    bool failed = false;
    U8_APPEND(buffer.data(), length, buffer.size(), c, failed);
    if (!failed)
        text.append(buffer.data(), length);
}

// Calls `good(codePoint, bytes)` or `bad(byte)` along the text.
template <class Good, class Bad>
void decode(std::string_view text, Good good, Bad bad) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto size = static_cast<std::int64_t>(text.size());
    for (std::int64_t i = 0; i < size;) {
        const std::int64_t start = i;
        UChar32 c = 0;
        U8_NEXT(bytes, i, size, c);
        if (c >= 0) {
            good(c, text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
        } else {
            for (std::int64_t k = start; k < i; ++k)
                bad(bytes[k]);
        }
    }
}

template <class Map>
std::string mapped(std::string_view text, Map map) {
    std::string result;
    result.reserve(text.size());
    decode(
        text, [&](UChar32 c, std::string_view) { appendCodePoint(result, map(c)); },
        [&](std::uint8_t byte) { result += static_cast<char>(byte); });
    return result;
}

// What no record holds: control characters, and the two code points of every plane's end that XML refuses.
bool isUnwritable(UChar32 c) { return u_charType(c) == U_CONTROL_CHAR || (c & 0xFFFE) == 0xFFFE; }

const icu::Collator* naturalCollator() {
    static const std::unique_ptr<icu::Collator> collator = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::Collator> made(icu::Collator::createInstance(icu::Locale::getRoot(), status));
        if (U_SUCCESS(status)) {
            made->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
            made->setStrength(icu::Collator::SECONDARY);
        }
        if (U_FAILURE(status))
            made.reset();
        return made;
    }();
    return collator.get();
}

} // namespace

std::string toLower(std::string_view text) {
    if (isAscii(text)) {
        std::string result(text);
        for (char& c : result)
            if (c >= 'A' && c <= 'Z')
                c = static_cast<char>(c + ('a' - 'A'));
        return result;
    }
    return mapped(text, [](UChar32 c) { return u_tolower(c); });
}

std::string toUpper(std::string_view text) {
    return mapped(text, [](UChar32 c) { return u_toupper(c); });
}

std::string pathKey(std::string_view path) { return toLower(path); }

std::string collisionKey(std::string_view path) {
    if (isAscii(path))
        return toLower(path);
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status) || !isValidUtf8(path))
        return pathKey(path);
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(piece(path));
    text.foldCase();
    const icu::UnicodeString composed = nfc->normalize(text, status);
    std::string result;
    (U_SUCCESS(status) ? composed : text).toUTF8String(result);
    return result;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) { return toLower(a) == toLower(b); }

std::string trim(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto isWhite = [](UChar32 c) { return c >= 0 && u_isUWhiteSpace(c); }; // invalid bytes are negative
    std::int32_t begin = 0, end = lengthOf(text);
    for (std::int32_t i = 0; i < end; begin = i) {
        UChar32 c = 0;
        U8_NEXT(bytes, i, end, c);
        if (!isWhite(c))
            break;
    }
    for (std::int32_t i = end; i > begin; end = i) {
        UChar32 c = 0;
        U8_PREV(bytes, begin, i, c);
        if (!isWhite(c))
            break;
    }
    return std::string(text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin)));
}

bool isValidUtf8(std::string_view text) {
    bool valid = true;
    decode(text, [](UChar32, std::string_view) {}, [&](std::uint8_t) { valid = false; });
    return valid;
}

bool isRecordableName(std::string_view name) {
    bool good = !name.empty();
    decode(
        name, [&](UChar32 c, std::string_view) { good = good && !isUnwritable(c); },
        [&](std::uint8_t) { good = false; });
    return good;
}

std::string escapeForDisplay(std::string_view bytes) {
    std::string result;
    const auto escape = [&](std::uint8_t byte) { result += fmt::format("\\x{:02X}", byte); };
    decode(
        bytes,
        [&](UChar32 c, std::string_view at) {
            if (c == '\\')
                result += "\\\\";
            else if (isUnwritable(c))
                for (const char byte : at)
                    escape(static_cast<std::uint8_t>(byte));
            else
                result += at;
        },
        escape);
    return result;
}

std::string withValidUtf8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    decode(text, [&](UChar32, std::string_view at) { result += at; }, [&](std::uint8_t) { result += "\uFFFD"; });
    return result;
}

std::string_view cutUtf8(std::string_view text, std::size_t bytes) {
    if (text.size() <= bytes)
        return text;
    std::size_t end = bytes;
    while (end > 0 && bytes - end < 3 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return text.substr(0, end);
}

int compareUtf16(std::string_view a, std::string_view b) {
    const auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (x == a.end() || y == b.end())
        return a.size() == b.size() ? 0 : (x == a.end() ? -1 : 1);
    // Only a lead byte can differ at 0xEE or above. U+10000 and up (lead 0xF0 …) are surrogates in UTF-16 and come
    // before U+E000 … U+FFFF (lead 0xEE, 0xEF).
    const auto rank = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 0xF0 ? byte - 2 : byte >= 0xEE ? byte + 16 : static_cast<int>(byte);
    };
    return rank(*x) < rank(*y) ? -1 : 1;
}

namespace {

// Names of a camera mostly differ in a number of as many digits: then its digits decide, and nothing behind them
// counts. 0 when it is not so simple.
int compareNumbers(std::string_view a, std::string_view b) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    const auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (x == a.end() || y == b.end() || !isDigit(*x) || !isDigit(*y))
        return 0;
    const auto endX = std::find_if_not(x, a.end(), isDigit);
    const auto endY = std::find_if_not(y, b.end(), isDigit);
    const auto goesOn = [](auto at, auto end) { return at != end && (*at & 0x80) != 0; }; // in another script's digits
    if (endX - x != endY - y || goesOn(endX, a.end()) || goesOn(endY, b.end()))
        return 0;
    return *x < *y ? -1 : 1;
}

} // namespace

int compareNatural(std::string_view a, std::string_view b) {
    if (const int order = compareNumbers(a, b); order != 0)
        return order;
    const icu::Collator* collator = naturalCollator();
    UErrorCode status = U_ZERO_ERROR;
    if (collator) {
        const auto result = collator->compareUTF8(piece(a), piece(b), status);
        if (U_SUCCESS(status))
            return static_cast<int>(result);
    }
    return toLower(a).compare(toLower(b)); // without ICU's data files
}

std::vector<std::string_view> split(std::string_view text, char separator, bool keepEmpty) {
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        const std::string_view part = text.substr(0, end);
        if (keepEmpty || !part.empty())
            parts.push_back(part);
        if (end == std::string_view::npos)
            return parts;
        text.remove_prefix(end + 1);
    }
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    return fmt::format("{}", fmt::join(parts, separator));
}

std::string replaceAll(std::string_view text, std::string_view what, std::string_view with) {
    std::string result;
    for (;;) {
        const std::size_t at = what.empty() ? std::string_view::npos : text.find(what);
        result += text.substr(0, at);
        if (at == std::string_view::npos)
            return result;
        result += with;
        text.remove_prefix(at + what.size());
    }
}

namespace {

constexpr std::array<std::string_view, 7> byteUnits{"B", "kB", "MB", "GB", "TB", "PB", "EB"};

// Formats in the first unit in which the number, as rounded for that unit, stays below 1000.
template <class Decimals>
std::string formatSize(std::int64_t bytes, Decimals decimals) {
    double value = static_cast<double>(bytes);
    for (std::size_t unit = 0;; ++unit, value /= 1000) {
        const std::string text = fmt::format("{:.{}f}", value, decimals(unit, value));
        if (unit + 1 == byteUnits.size() || std::abs(std::stod(text)) < 1000)
            return text + " " + std::string(byteUnits[unit]);
    }
}

} // namespace

std::string formatBytes(std::int64_t bytes) {
    return formatSize(bytes, [](std::size_t unit, double) { return unit < 2 ? 0 : unit == 2 ? 1 : 2; });
}

std::string formatBytesShort(std::int64_t bytes) {
    return formatSize(bytes, [](std::size_t unit, double value) { return unit > 1 && std::abs(value) < 9.95 ? 1 : 0; });
}

std::string counted(std::int64_t n, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", n, plural(n, one, many));
}

} // namespace velmora
