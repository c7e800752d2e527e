#include "memory/HistoryFile.h"

#include "base/JsonFields.h"
#include "base/JsonReader.h"
#include "base/SideBySide.h"
#include "records/RecordReaders.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

namespace velmora::HistoryFile {

namespace {

using nlohmann::json;

constexpr std::int64_t version = 1;

// A document, or the half of one. Throws FormatError.
struct Part {
    std::vector<HistoryEntry> entries;
    json rest = json::object(); // the document without its entries
    bool good = true;           // every entry could be read
    bool once = true;           // "entries" stands in it once

    explicit Part(std::string_view text) {
        try {
            read(text);
        } catch (const FormatError&) { // one entry is damaged; the rest of the document counts
            const auto again = [this] {
                restart();
                once = false;
            };
            restart();
            rest = Json::parseStreaming(text, "entries", [this](json&& value) { add(value); }, again);
        }
    }

private:
    void read(std::string_view text) {
        JsonReader in(text);
        bool seen = false;
        in.object([&](std::string_view key) {
            json& value = rest[std::string(key)];
            if (key != "entries" || in.kind() != JsonReader::Kind::array) {
                value = in.value();
                return;
            }
            once = !std::exchange(seen, true);
            restart();
            value = json::array();
            in.array([&] {
                fromReader(in, entries.emplace_back());
                good = good && isId(entries.back().id);
            });
        });
        in.end();
    }
    void add(const json& value) try {
        entries.push_back(value.get<HistoryEntry>());
        good = good && isId(entries.back().id);
    } catch (const FormatError&) {
        good = false;
    }
    void restart() {
        entries.clear();
        good = true;
    }
};

// Both halves at once, cut between two entries of the layout that `write` gives; nothing for any other layout. Line
// feeds do not stand in a string of JSON, so that the cut is in none.
std::optional<Part> inHalves(std::string_view text) {
    constexpr std::string_view between = "\n    },\n    {\n";
    constexpr std::size_t worthIt = 1 << 16;
    const std::size_t cut = text.size() < worthIt ? text.npos : text.find(between, text.size() / 2);
    if (cut == text.npos)
        return std::nullopt;
    try {
        std::vector<Part> halves = sideBySide(2, [&](std::size_t half) {
            return Part(half == 0 ? std::string(text.substr(0, cut)) + "\n    }\n  ]\n}"
                                  : "{\n  \"entries\": [\n    {\n" + std::string(text.substr(cut + between.size())));
        });
        Part& first = halves[0];
        Part& second = halves[1];
        // The cut is in the list of entries only where nothing else stands before it.
        if (first.entries.empty() || first.rest.size() != 1 || !first.once || !second.once)
            return std::nullopt;
        first.entries.insert(first.entries.end(), std::move_iterator(second.entries.begin()),
                             std::move_iterator(second.entries.end()));
        first.rest = std::move(second.rest);
        first.good = first.good && second.good;
        return std::move(first);
    } catch (const FormatError&) {
        return std::nullopt;
    }
}

// None for what has no version of ours.
std::optional<State> stateOf(const json& rest) {
    const auto number = rest.is_object() ? rest.find("version") : rest.end();
    if (number == rest.end() || !number->is_number() || number->get<double>() < version)
        return std::nullopt;
    // Whatever is above our number is newer, also a fraction and what no integer holds.
    return number->get<double>() > version ? State::newer : State::good;
}

// A document whose list can be read, or not.
Contents judged(const json& rest, std::string_view key, bool good) {
    const std::optional<State> state = stateOf(rest);
    if (!state)
        return {State::damaged, false, {}, {}};
    const auto list = rest.find(key);
    if (good && list != rest.end() && list->is_array())
        return {*state, true, {}, {}};
    return {*state == State::newer ? State::newer : State::damaged, false, {}, {}};
}

} // namespace

Contents read(std::string_view text) try {
    std::optional<Part> whole = inHalves(text);
    if (!whole)
        whole.emplace(text);
    Contents contents = judged(whole->rest, "entries", whole->good);
    if (contents.understood)
        contents.entries = std::move(whole->entries);
    return contents;
} catch (const FormatError&) {
    return {State::damaged, false, {}, {}};
}

Contents readVerifications(std::string_view text) try {
    std::vector<HistoryVerification> records;
    bool good = true;
    const json rest = Json::parseStreaming(
        text, "verifications",
        [&](json&& value) {
            try {
                records.push_back(value.get<HistoryVerification>());
            } catch (const FormatError&) {
                good = false;
            }
        },
        [&] {
            records.clear();
            good = true;
        });
    Contents contents = judged(rest, "verifications", good);
    if (contents.understood)
        contents.verifications = std::move(records);
    return contents;
} catch (const FormatError&) {
    return {State::damaged, false, {}, {}};
}

std::string write(const std::vector<HistoryEntry>& entries) {
    return Json::prettyStreaming({{"version", version}}, "entries", entries.size(),
                                 [&](std::size_t i) { return json(entries[i]); }) +
           "\n";
}

std::string write(const std::vector<HistoryVerification>& verifications) {
    return Json::prettyStreaming({{"version", version}}, "verifications", verifications.size(),
                                 [&](std::size_t i) { return json(verifications[i]); }) +
           "\n";
}

bool isId(std::string_view id) {
    return !id.empty() && id.size() <= 64 && std::ranges::all_of(id, [](unsigned char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
    });
}

} // namespace velmora::HistoryFile
