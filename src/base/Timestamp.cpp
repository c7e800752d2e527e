#include "base/Timestamp.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <ctime>
#include <limits>

namespace velmora {

namespace {

constexpr std::int64_t secondsPerDay = 86400;

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar, and back; by eras of 400 years, counted from
// 1 March, so that the leap day ends a year.
std::int64_t daysOf(std::int64_t year, int month, int day) {
    year -= month <= 2;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const std::int64_t yearOfEra = year - era * 400;
    const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

struct Date {
    std::int64_t year;
    int month;
    int day;
};

Date dateOf(std::int64_t days) {
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const std::int64_t dayOfEra = days - era * 146097;
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t shifted = (5 * dayOfYear + 2) / 153;
    const int day = static_cast<int>(dayOfYear - (153 * shifted + 2) / 5 + 1);
    const int month = static_cast<int>(shifted < 10 ? shifted + 3 : shifted - 9);
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }

std::string padded(std::int64_t value, std::size_t width) {
    std::string text = std::to_string(value);
    return text.size() < width ? std::string(width - text.size(), '0') + text : text;
}

// Reads the text from left to right.
class Scanner {
public:
    explicit Scanner(std::string_view text) : text_(text) {}
    bool atEnd() const { return text_.empty(); }
    bool take(char c) {
        if (text_.empty() || text_.front() != c)
            return false;
        text_.remove_prefix(1);
        return true;
    }
    bool takeAny(std::string_view chars) {
        if (text_.empty() || chars.find(text_.front()) == std::string_view::npos)
            return false;
        text_.remove_prefix(1);
        return true;
    }
    // Between `min` and `max` digits.
    std::optional<std::int64_t> digits(std::size_t min, std::size_t max) {
        std::int64_t value = 0;
        std::size_t n = 0;
        while (n < max && n < text_.size() && text_[n] >= '0' && text_[n] <= '9')
            value = value * 10 + (text_[n++] - '0');
        if (n < min)
            return std::nullopt;
        text_.remove_prefix(n);
        return value;
    }
    std::optional<int> number(std::size_t width, int min, int max) {
        const auto value = digits(width, width);
        if (!value || *value < min || *value > max)
            return std::nullopt;
        return static_cast<int>(*value);
    }
    // Digits behind a decimal point as nanoseconds; further ones are dropped.
    std::optional<std::int32_t> fraction() {
        std::int32_t value = 0;
        std::size_t n = 0;
        for (; n < text_.size() && text_[n] >= '0' && text_[n] <= '9'; ++n)
            if (n < 9)
                value = value * 10 + (text_[n] - '0');
        if (n == 0)
            return std::nullopt;
        for (std::size_t i = n; i < 9; ++i)
            value *= 10;
        text_.remove_prefix(n);
        return value;
    }

private:
    std::string_view text_;
};

// "Z", "+hh", "+hh:mm", "+hhmm", or nothing, in seconds.
std::optional<int> zone(Scanner& in) {
    if (in.atEnd() || in.takeAny("Zz"))
        return 0;
    const bool negative = in.take('-');
    if (!negative && !in.take('+'))
        return std::nullopt;
    const auto hours = in.number(2, 0, 23);
    if (!hours)
        return std::nullopt;
    int minutes = 0;
    if (!in.atEnd()) {
        in.take(':');
        const auto value = in.number(2, 0, 59);
        if (!value)
            return std::nullopt;
        minutes = *value;
    }
    const int offset = *hours * 3600 + minutes * 60;
    return negative ? -offset : offset;
}

int daysInMonth(std::int64_t year, int month) {
    constexpr std::array<int, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return month == 2 && leap ? 29 : days[static_cast<std::size_t>(month - 1)];
}

// The C locale whatever the process has set, since file names and records must not follow the user's language.
std::string format(const std::tm& tm, const char* pattern) {
    static const locale_t c = newlocale(LC_ALL_MASK, "C", nullptr);
    char buffer[256];
    return {buffer, strftime_l(buffer, sizeof buffer, pattern, &tm, c)};
}

// Moments whose year no calendar call can hold show as the last one that they can.
std::time_t calendarSeconds(Timestamp t) {
    constexpr std::int64_t limit = 67'000'000'000'000'000; // beyond the year 2,000,000,000
    return static_cast<std::time_t>(std::clamp(t.seconds, -limit, limit));
}

std::tm localTime(Timestamp t) {
    const std::time_t seconds = calendarSeconds(t);
    std::tm tm{};
    localtime_r(&seconds, &tm);
    return tm;
}

} // namespace

Timestamp Timestamp::now() {
    std::timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return {ts.tv_sec, static_cast<std::int32_t>(ts.tv_nsec)};
}

double secondsBetween(Timestamp a, Timestamp b) {
    const std::int32_t nanos = b.nanoseconds - a.nanoseconds;
    std::int64_t seconds = 0;
    if (__builtin_sub_overflow(b.seconds, a.seconds, &seconds))
        return static_cast<double>(b.seconds) - static_cast<double>(a.seconds);
    // Nanoseconds in all, so that those of moments close to each other survive.
    return (static_cast<double>(seconds) * 1e9 + static_cast<double>(nanos)) / 1e9;
}

namespace TimeText {

std::string iso8601(Timestamp t) {
    const std::int64_t days = floorDiv(t.seconds, secondsPerDay);
    const std::int64_t rest = t.seconds % secondsPerDay;
    const std::int64_t second = rest < 0 ? rest + secondsPerDay : rest;
    const Date date = dateOf(days);
    const std::string year = date.year < 0 ? "-" + padded(-date.year, 4) : padded(date.year, 4);
    return year + "-" + padded(date.month, 2) + "-" + padded(date.day, 2) + "T" + padded(second / 3600, 2) + ":" +
           padded(second / 60 % 60, 2) + ":" + padded(second % 60, 2) + "Z";
}

std::optional<Timestamp> parseIso8601(std::string_view text) {
    Scanner in(text);
    const bool beforeYearZero = in.take('-');
    const auto year = in.digits(4, 12); // more digits than the calendar needs: a file system may hold any time
    if (!year || !in.take('-'))
        return std::nullopt;
    const std::int64_t signedYear = beforeYearZero ? -*year : *year;
    const auto month = in.number(2, 1, 12);
    if (!month || !in.take('-'))
        return std::nullopt;
    const auto day = in.number(2, 1, daysInMonth(signedYear, *month));
    if (!day || !in.takeAny("Tt "))
        return std::nullopt;
    const auto hour = in.number(2, 0, 23);
    if (!hour || !in.take(':'))
        return std::nullopt;
    const auto minute = in.number(2, 0, 59);
    if (!minute || !in.take(':'))
        return std::nullopt;
    const auto second = in.number(2, 0, 60); // 60 in a leap second
    if (!second)
        return std::nullopt;
    Timestamp result;
    if (in.takeAny(".,")) {
        const auto fraction = in.fraction();
        if (!fraction)
            return std::nullopt;
        result.nanoseconds = *fraction;
    }
    const auto offset = zone(in);
    if (!offset || !in.atEnd())
        return std::nullopt;
    // Counted from the next day while negative: the first day that fits begins before the first second that fits.
    std::int64_t days = daysOf(signedYear, *month, *day);
    std::int64_t inDay = *hour * 3600 + *minute * 60 + *second - *offset;
    if (days < 0) {
        ++days;
        inDay -= secondsPerDay;
    }
    if (__builtin_mul_overflow(days, secondsPerDay, &result.seconds) ||
        __builtin_add_overflow(result.seconds, inDay, &result.seconds))
        return std::nullopt;
    return result;
}

std::string iso8601Local(Timestamp t) {
    const std::tm tm = localTime(t);
    const long offset = tm.tm_gmtoff / 60;
    return format(tm, "%Y-%m-%dT%H:%M:%S") + (offset < 0 ? "-" : "+") + padded(std::abs(offset) / 60, 2) + ":" +
           padded(std::abs(offset) % 60, 2);
}

std::string utc(Timestamp t, const char* pattern) {
    const std::time_t seconds = calendarSeconds(t);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    return format(tm, pattern);
}

std::string local(Timestamp t, const char* pattern) { return format(localTime(t), pattern); }

} // namespace TimeText

} // namespace velmora
