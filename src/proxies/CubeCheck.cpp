#include "proxies/CubeCheck.h"

#include <charconv>
#include <cmath>
#include <tuple>

namespace velmora {

namespace {

constexpr std::string_view sizeKey = "LUT_3D_SIZE";
constexpr std::size_t longestLine = 1000;
constexpr std::int64_t mostOtherLines = 100'000; // remarks, titles and what other programs add

std::string_view withoutBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

// Takes a number and the blanks before it off the text.
template <class Number>
bool take(std::string_view& text, Number& number) {
    text = withoutBlanks(text);
    if (text.starts_with('+'))
        text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::invalid_argument)
        return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    // A number too small for its type is as good as zero, and one too large fails the test for its bounds.
    return text.empty() || text.starts_with(' ') || text.starts_with('\t') || text.starts_with('\r');
}

bool isData(std::string_view text) {
    for (int i = 0; i < 3; ++i) {
        double number = 0;
        if (!take(text, number) || !std::isfinite(number))
            return false;
    }
    return withoutBlanks(text).empty();
}

bool isNear(double number, double wanted) { return std::abs(number - wanted) < 1e-6; }

// Whether a line says that the table is for more or less than what stands between 0 and 1.
bool changesInput(std::string_view text) {
    if (text.starts_with("LUT_1D_"))
        return true;
    for (const auto& [key, low, high] :
         {std::tuple{"DOMAIN_MIN", 0.0, 0.0}, {"DOMAIN_MAX", 1.0, 1.0}, {"LUT_3D_INPUT_RANGE", 0.0, 1.0}}) {
        if (!text.starts_with(key))
            continue;
        text.remove_prefix(std::string_view(key).size());
        double number = 0;
        for (bool first = true; take(text, number); first = false)
            if (!isNear(number, first ? low : high))
                return true;
    }
    return false;
}

} // namespace

void CubeCheck::line(const std::string_view whole) {
    std::string_view text = whole;
    if (missing_ < 0 && text.starts_with(sizeKey)) {
        std::int64_t size = 0;
        text.remove_prefix(sizeKey.size());
        if (!take(text, size) || !withoutBlanks(text).empty() || size < minSize || size > maxSize)
            answer_ = Answer::invalid;
        else
            missing_ = size * size * size;
        if (keep_ && missing_ > 0)
            keep_(whole);
    } else if (missing_ > 0 && isData(text)) {
        if (keep_)
            keep_(whole);
        if (--missing_ == 0)
            answer_ = Answer::valid;
    } else if (changesInput(text) || ++otherLines_ > mostOtherLines) {
        answer_ = Answer::invalid;
    }
}

CubeCheck::Answer CubeCheck::feed(std::string_view piece) {
    while (answer_ == Answer::open && !piece.empty()) {
        const std::size_t end = piece.find('\n');
        const std::string_view part = piece.substr(0, end);
        if (partial_.size() + part.size() > longestLine)
            return answer_ = Answer::invalid;
        partial_ += part;
        if (end == std::string_view::npos)
            break;
        line(partial_);
        partial_.clear();
        piece.remove_prefix(end + 1);
    }
    return answer_;
}

CubeCheck::Answer CubeCheck::end() {
    if (answer_ == Answer::open)
        line(partial_);
    return answer_ = answer_ == Answer::valid ? Answer::valid : Answer::invalid;
}

} // namespace velmora
