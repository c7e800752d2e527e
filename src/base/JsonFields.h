#pragma once

#include "base/Timestamp.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora {

// A document that is not what it should be: not JSON, a required key missing, a value of the wrong type or out of its
// bounds. `what()` names the key.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// JSON in and out. Keys are written sorted, slashes unescaped, text as UTF-8. Bytes of a string that are not valid
// UTF-8 are written as U+FFFD, so that no writer throws. File names never need that: the scan refuses such names.
namespace Json {

inline constexpr int maxDepth = 32;

// Parses hostile text: throws FormatError on a syntax error, invalid UTF-8 or nesting deeper than `maxDepth`. Of a key
// that stands twice the last one counts.
nlohmann::json parse(std::string_view text);

// The same, but each element of the array `key` of the top-level object is handed to `element` as soon as it is
// complete and then forgotten; the result holds an empty array there. Keeps long lists out of memory. Should the key
// stand twice, `restart` is called before the second list.
nlohmann::json parseStreaming(std::string_view text, std::string_view key,
                              const std::function<void(nlohmann::json&&)>& element,
                              const std::function<void()>& restart);

std::string compact(const nlohmann::json& value); // one line
std::string pretty(const nlohmann::json& value);  // two blanks a level, no line feed at the end

// Pretty text of the object `rest` plus the array `key` (not in `rest`), whose `count` elements are made one at a
// time: the counterpart of parseStreaming, byte-equal to `pretty` of the whole.
std::string prettyStreaming(const nlohmann::json& rest, const std::string& key, std::size_t count,
                            const std::function<nlohmann::json(std::size_t)>& element);

} // namespace Json

namespace Json {

// A value as a bool, a whole number within 64 bits, a finite number, a text, a time or a list of texts; none when it is
// of another type. A whole number that is written with a fraction of zero counts as whole.
template <class T>
std::optional<T> as(const nlohmann::json& value);

} // namespace Json

// Typed access to the keys of one JSON object. A key that is absent or null counts as missing. In a strict reading a
// value of the wrong type throws FormatError; in a tolerant one it counts as missing as well.
class JsonFields {
public:
    enum class Reading { strict, tolerant };

    // Throws FormatError when `value` is no object (in a tolerant reading it counts as an empty one).
    // `value` outlives this object.
    explicit JsonFields(const nlohmann::json& value, Reading reading = Reading::strict);

    // The value of a key, or null when missing.
    const nlohmann::json* find(const char* key) const;
    // The array of a key, or null when missing.
    const nlohmann::json* array(const char* key) const;

    // None when missing.
    std::optional<std::string> optionalString(const char* key) const;
    std::optional<bool> optionalBoolean(const char* key) const;
    std::optional<std::int64_t> optionalInteger(const char* key, std::int64_t min = lowest,
                                                std::int64_t max = highest) const;
    std::optional<double> optionalNumber(const char* key) const;
    std::optional<Timestamp> optionalTimestamp(const char* key) const;
    std::optional<std::vector<std::string>> optionalStrings(const char* key) const;

    // FormatError when missing.
    std::string string(const char* key) const;
    void require(const char* key) const;

    // Throws in a strict reading; returns in a tolerant one.
    void wrong(const char* key, const char* expected) const;

    static constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
    static constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();

private:
    template <class T>
    std::optional<T> typed(const char* key, const char* expected) const;

    const nlohmann::json& object_;
    Reading reading_;
};

} // namespace velmora
