#include "engine/Layout.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "base/Timestamp.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string>

namespace velmora {

namespace {

// One pass over a path's components: empty and "." ones go, ".." takes the one before it along.
std::string standardised(std::string_view path) {
    std::vector<std::string_view> kept;
    for (const std::string_view part : split(path, '/', false)) {
        if (part == ".." && !kept.empty())
            kept.pop_back();
        else if (part != "." && part != "..")
            kept.push_back(part);
    }
    std::string result;
    for (const std::string_view part : kept)
        result.append("/").append(part);
    return result.empty() ? "/" : result;
}

} // namespace

bool Layout::isReserved(std::string_view name) {
    static constexpr std::array names{reportDirName, proxyDirName, mhlDirName};
    return std::ranges::any_of(names, [&](std::string_view reserved) { return equalIgnoringCase(name, reserved); });
}

std::string Layout::today() { return TimeText::local(Timestamp::now(), "%Y-%m-%d"); }

bool Layout::isDate(std::string_view date) {
    static constexpr std::string_view form = "dddd-dd-dd";
    if (!std::ranges::equal(date, form, [](char c, char f) { return f == 'd' ? c >= '0' && c <= '9' : c == f; }))
        return false;
    const auto number = [&](std::size_t at, std::size_t count) {
        return std::stoi(std::string(date.substr(at, count)));
    };
    using namespace std::chrono;
    const auto day = year_month_day(year(number(0, 4)), month(static_cast<unsigned>(number(5, 2))),
                                    std::chrono::day(static_cast<unsigned>(number(8, 2))));
    return day.ok() && day.year() > year(0);
}

std::string Layout::sanitize(std::string_view name) {
    // Bytes that are no text cannot stand in any record; what must be shown as an escape becomes one underscore.
    std::string text = isValidUtf8(name) ? std::string(name) : replaceAll(withValidUtf8(name), "\uFFFD", "_");
    for (char& c : text)
        if (c == '/' || c == ':' || c == '\\')
            c = '_';
    // The longest name of a file system is 255 bytes, and "_2" or ".xxh64" must still fit behind this one.
    constexpr std::size_t longestName = 200;
    text = trim(cutUtf8(trim(text), longestName));
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '_';
    if (text.empty() || text == "." || text == ".." || !isRecordableName(text))
        return "CARD";
    return isReserved(text) ? text + "_" : text;
}

std::string Layout::defaultCardName(const std::string& path) {
    const std::string volume = VolumeFacts::nameOfVolumeAt(path);
    return sanitize(volume.empty() ? RelativePath::name(standardised(path)) : volume);
}

std::string Layout::uniqueCardFolder(const std::vector<std::string>& roots, const std::string& date,
                                     const std::string& name) {
    const auto isTaken = [&](const std::string& candidate) {
        return std::ranges::any_of(roots,
                                   [&](const auto& root) { return IO::exists(cardPath(root, date, candidate)); });
    };
    std::string candidate = name;
    for (int number = 2; isTaken(candidate); ++number)
        candidate = name + "_" + std::to_string(number);
    return candidate;
}

std::string Layout::cardPath(const std::string& root, const std::string& date, const std::string& cardName) {
    return root + "/" + date + "/" + cardName;
}

std::vector<std::string> Layout::cardPaths(const std::vector<std::string>& roots, const std::string& date,
                                           const std::string& cardName) {
    std::vector<std::string> paths;
    for (const std::string& root : roots)
        paths.push_back(cardPath(root, date, cardName));
    return paths;
}

std::string Layout::normalizedRoot(const std::string& path) {
    return toLower(standardised(VolumeFacts::realPath(path)));
}

} // namespace velmora
