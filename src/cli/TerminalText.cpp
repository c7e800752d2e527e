#include "cli/TerminalText.h"

#include <fmt/format.h>
#include <memory>
#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>
#include <vector>

namespace velmora::TerminalText {

namespace {

bool upsetsTerminal(UChar32 c) {
    switch (u_charType(c)) {
    case U_CONTROL_CHAR:
    case U_LINE_SEPARATOR:
    case U_PARAGRAPH_SEPARATOR:
    case U_SURROGATE:
        return true;
    default:
        return u_hasBinaryProperty(c, UCHAR_BIDI_CONTROL);
    }
}

// One visible character: a base with everything that joins it.
struct Cluster {
    std::size_t begin = 0; // bytes
    std::size_t end = 0;
    std::size_t cells = 0;
};

std::size_t cellsOf(const icu::UnicodeString& cluster) {
    const UChar32 base = cluster.char32At(0);
    const auto type = u_charType(base);
    if (type == U_NON_SPACING_MARK || type == U_ENCLOSING_MARK || type == U_FORMAT_CHAR)
        return 0;
    const auto eastAsian = u_getIntPropertyValue(base, UCHAR_EAST_ASIAN_WIDTH);
    if (eastAsian == U_EA_WIDE || eastAsian == U_EA_FULLWIDTH || u_hasBinaryProperty(base, UCHAR_EMOJI_PRESENTATION))
        return 2;
    return cluster.indexOf(static_cast<UChar32>(0xFE0F)) > 0 ? 2 : 1; // asks for the coloured, wide form
}

std::vector<Cluster> clusters(std::string_view text) {
    const auto unicode = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::BreakIterator> breaks(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    std::vector<Cluster> result;
    if (U_FAILURE(status))
        return result;
    breaks->setText(unicode);
    std::size_t byte = 0;
    for (int32_t start = breaks->first(), end = breaks->next(); end != icu::BreakIterator::DONE;
         start = end, end = breaks->next()) {
        const auto piece = unicode.tempSubStringBetween(start, end);
        std::size_t bytes = 0;
        for (int32_t i = 0; i < piece.length(); i = piece.moveIndex32(i, 1))
            bytes += static_cast<std::size_t>(U8_LENGTH(piece.char32At(i)));
        result.push_back({byte, byte + bytes, cellsOf(piece)});
        byte += bytes;
    }
    return result;
}

std::size_t sum(const std::vector<Cluster>& all) {
    std::size_t cells = 0;
    for (const auto& one : all)
        cells += one.cells;
    return cells;
}

constexpr std::string_view ellipsis = "…";

} // namespace

std::string printable(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto size = static_cast<int32_t>(text.size());
    for (int32_t i = 0; i < size;) {
        const int32_t start = i;
        UChar32 c = 0;
        U8_NEXT(bytes, i, size, c);
        if (c >= 0 && !upsetsTerminal(c)) {
            result.append(text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
            continue;
        }
        for (int32_t k = start; k < i; ++k)
            result += fmt::format("\\x{:02X}", bytes[k]);
    }
    return result;
}

std::size_t width(std::string_view text) { return sum(clusters(text)); }

std::string fit(std::string_view text, std::size_t columns) {
    std::string clean = printable(text);
    const auto all = clusters(clean);
    if (sum(all) <= columns)
        return clean;
    if (columns == 0)
        return {};
    std::size_t used = 0;
    std::size_t end = 0;
    for (const auto& one : all) {
        if (used + one.cells > columns - 1)
            break;
        used += one.cells;
        end = one.end;
    }
    clean.resize(end);
    return clean.append(ellipsis);
}

std::string fitMiddle(std::string_view text, std::size_t columns) {
    std::string clean = printable(text);
    const auto all = clusters(clean);
    if (sum(all) <= columns)
        return clean;
    if (columns < 5)
        return fit(clean, columns);
    // A third in front, the rest behind: the end of a path is its file name.
    std::size_t used = 0;
    std::size_t head = 0;
    std::size_t first = 0;
    for (; first < all.size() && used + all[first].cells <= (columns - 1) / 3; ++first) {
        used += all[first].cells;
        head = all[first].end;
    }
    std::size_t tail = clean.size();
    for (std::size_t last = all.size(); last > first && used + all[last - 1].cells <= columns - 1; --last) {
        used += all[last - 1].cells;
        tail = all[last - 1].begin;
    }
    return clean.substr(0, head).append(ellipsis).append(clean, tail);
}

} // namespace velmora::TerminalText
