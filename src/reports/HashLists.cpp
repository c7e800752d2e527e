#include "reports/HashLists.h"

#include "base/StopIf.h"
#include "base/Text.h"
#include "engine/Layout.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>

namespace velmora::HashLists {

namespace {

// XXH3 128-bit stands in the reports and in the ASC MHL; there is no list for it.
constexpr std::array<std::string_view, 2> listed = {"xxh64", "md5"};

// Longer than any list of a card, short enough to be held: a hostile disk must not fill the memory.
constexpr std::int64_t longestList = 1 << 30;

constexpr int linesBetweenStops = 10'000;

std::string line(std::string_view digest, std::string_view path) {
    return std::string(digest).append("  ").append(path).append("\n");
}

std::string pathOf(const std::string& cardPath, const std::string& cardName, std::string_view algorithm) {
    return fmt::format("{}/{}/{}.{}", cardPath, Layout::reportDirName, cardName, algorithm);
}

// The lines of `text` that `list` does not hold, each with its line feed.
std::string notIn(std::string_view list, std::string_view text) {
    const auto lines = listLines(list);
    const std::set<std::string_view> held(lines.begin(), lines.end());
    std::string result;
    for (const auto one : listLines(text))
        if (!held.contains(one))
            result.append(one).append("\n");
    return result;
}

} // namespace

std::string of(const OffloadReport& report, std::string_view algorithm) {
    std::string list;
    for (const auto& file : report.files) {
        if (const auto& digest = file.digest(algorithm))
            list += line(*digest, file.path);
    }
    return list;
}

std::string of(const OffloadReport& report) {
    const auto algorithms = report.algorithms();
    const bool onlyMd5 = !algorithms.empty() && std::ranges::all_of(algorithms, [](auto& a) { return a == "md5"; });
    return of(report, onlyMd5 ? "md5" : "xxh64");
}

std::vector<std::string_view> listLines(std::string_view list) { return split(list, '\n', false); }

Standing listAndMissed(const std::string& path, const std::string& cardPath, const MHLHistory& history,
                       std::span<const std::string> alsoListed, std::string_view algorithm,
                       const IsCancelled& isCancelled) {
    Standing standing;
    auto stopNowAndThen = [&isCancelled, seen = 0]() mutable {
        if (++seen % linesBetweenStops == 0)
            stopIf(isCancelled);
    };
    if (IO::exists(path))
        standing.list = IO::readFileBeneath(cardPath, path.substr(cardPath.size() + 1), longestList);
    if (!standing.list.empty() && standing.list.back() != '\n')
        standing.list += '\n';

    std::unordered_set<std::string_view> exact(alsoListed.begin(), alsoListed.end());
    for (const auto one : listLines(standing.list)) {
        stopNowAndThen();
        if (const auto blanks = one.find("  "); blanks != std::string_view::npos)
            exact.emplace(one.substr(blanks + 2));
    }
    stopIf(isCancelled);
    const auto stands = [&](const auto& entry) {
        return exact.contains(entry.first) || entry.second->hash(algorithm) == nullptr;
    };
    if (std::ranges::all_of(history.files, stands)) // as nearly always
        return standing;
    std::unordered_set<std::string> named;
    for (const auto one : exact) {
        stopNowAndThen();
        named.insert(pathKey(one));
    }
    std::unordered_map<std::string, int>
        names; // of the history, by key: two that differ in case only are two files of the card
    for (const auto& [file, record] : history.files) {
        stopNowAndThen();
        ++names[pathKey(file)];
    }
    for (const auto& [file, record] : history.files) {
        stopNowAndThen();
        const MHLHash* digest = record->hash(algorithm);
        const std::string key = pathKey(file);
        if (digest != nullptr && !(names[key] > 1 ? exact.contains(file) : named.contains(key)))
            standing.missed += line(digest->value, file);
    }
    return standing;
}

void write(const OffloadReport& report, const std::string& cardPath, bool merge) {
    std::vector<std::string> ownPaths;
    for (const auto& file : report.files)
        ownPaths.push_back(file.path);
    std::optional<MHLHistory> history;
    const auto algorithms = report.algorithms();
    for (const auto algorithm : listed) {
        if (std::ranges::find(algorithms, algorithm) == algorithms.end())
            continue;
        const std::string path = pathOf(cardPath, report.cardName, algorithm);
        const std::string own = of(report, algorithm);
        const bool exists = IO::exists(path);
        if (report.generationNumber() <= 1 && (!merge || !exists)) {
            IO::writeFileDurably(path, own);
            continue;
        }
        if (!history)
            history = MHLReader::read(cardPath);
        const auto standing = listAndMissed(path, cardPath, *history, ownPaths, algorithm);
        const std::string addition = standing.missed + notIn(standing.list, own);
        if (!addition.empty() || !exists)
            IO::writeFileDurably(path, standing.list + addition);
    }
}

bool heal(const std::string& cardPath, const std::string& cardName, const MHLHistory& history,
          const IsCancelled& isCancelled) {
    bool wrote = false;
    for (const auto algorithm : listed) {
        stopIf(isCancelled);
        const std::string path = pathOf(cardPath, cardName, algorithm);
        const auto standing = listAndMissed(path, cardPath, history, {}, algorithm, isCancelled);
        if (standing.missed.empty())
            continue;
        IO::writeFileDurably(path, standing.list + standing.missed);
        wrote = true;
    }
    return wrote;
}

} // namespace velmora::HashLists
