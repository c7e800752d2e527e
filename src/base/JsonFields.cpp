#include "base/JsonFields.h"

#include "base/JsonReader.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <utility>

namespace velmora {

using nlohmann::json;

namespace {

std::string dump(const json& value, int indent) {
    return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

} // namespace

namespace Json {

json parse(std::string_view text) {
    JsonReader reader(text);
    json whole = reader.value();
    reader.end();
    return whole;
}

json parseStreaming(std::string_view text, std::string_view key, const std::function<void(json&&)>& element,
                    const std::function<void()>& restart) {
    JsonReader reader(text);
    if (reader.kind() != JsonReader::Kind::object)
        return parse(text);
    json rest = json::object();
    bool seen = false;
    reader.object([&](std::string_view name) {
        json& value = rest[std::string(name)];
        if (name != key || reader.kind() != JsonReader::Kind::array) {
            value = reader.value();
            return;
        }
        if (std::exchange(seen, true))
            restart();
        value = json::array();
        reader.array([&] { element(reader.value()); });
    });
    reader.end();
    return rest;
}

std::string compact(const json& value) { return dump(value, -1); }

std::string pretty(const json& value) { return dump(value, 2); }

std::string prettyStreaming(const json& rest, const std::string& key, std::size_t count,
                            const std::function<json(std::size_t)>& element) {
    // Line feeds inside strings are always escaped, so indenting whole lines is safe.
    const auto append = [](std::string& text, std::string_view value, std::size_t indent) {
        for (std::size_t end; (end = value.find('\n')) != std::string_view::npos; value.remove_prefix(end + 1)) {
            text += value.substr(0, end + 1);
            text.append(indent, ' ');
        }
        text += value;
    };
    std::string text = "{";
    const auto member = [&](const std::string& name) {
        text += text.size() == 1 ? "\n  " : ",\n  ";
        text += dump(json(name), -1) + ": ";
    };
    constexpr std::size_t sampled = 255;
    const auto list = [&] {
        member(key);
        text += '[';
        const std::size_t start = text.size();
        for (std::size_t i = 0; i < count; ++i) {
            text += i == 0 ? "\n    " : ",\n    ";
            append(text, dump(element(i), 2), 4);
            // A text that doubles its memory as it grows would hold three times its size for a moment.
            if (i == sampled)
                text.reserve(text.size() + (text.size() - start) / (sampled + 1) * (count - i) * 9 / 8 + 4096);
        }
        text += count == 0 ? "]" : "\n  ]";
    };
    bool listed = false;
    for (const auto& [name, value] : rest.items()) {
        if (!listed && key < name) {
            list();
            listed = true;
        }
        member(name);
        append(text, dump(value, 2), 2);
    }
    if (!listed)
        list();
    text += "\n}";
    return text;
}

} // namespace Json

namespace {

const json emptyObject = json::object();

// 2^63 as a double; a double below it and at or above its negative fits into 64 bits.
constexpr double twoTo63 = 9223372036854775808.0;

} // namespace

namespace Json {

template <>
std::optional<bool> as(const json& value) {
    return value.is_boolean() ? std::optional(value.get<bool>()) : std::nullopt;
}
template <>
std::optional<std::int64_t> as(const json& value) {
    if (value.is_number_unsigned()) {
        const auto n = value.get<std::uint64_t>();
        return n <= static_cast<std::uint64_t>(JsonFields::highest) ? std::optional(static_cast<std::int64_t>(n))
                                                                    : std::nullopt;
    }
    if (value.is_number_integer())
        return value.get<std::int64_t>();
    const double n = value.is_number() ? value.get<double>() : 0.5;
    return std::trunc(n) == n && n >= -twoTo63 && n < twoTo63 ? std::optional(static_cast<std::int64_t>(n))
                                                              : std::nullopt;
}
template <>
std::optional<double> as(const json& value) {
    return value.is_number() && std::isfinite(value.get<double>()) ? std::optional(value.get<double>()) : std::nullopt;
}
template <>
std::optional<std::string> as(const json& value) {
    const auto* text = value.get_ptr<const std::string*>();
    return text ? std::optional(*text) : std::nullopt;
}
template <>
std::optional<Timestamp> as(const json& value) {
    const auto* text = value.get_ptr<const std::string*>();
    return text ? TimeText::parseIso8601(*text) : std::nullopt;
}
template <>
std::optional<std::vector<std::string>> as(const json& value) {
    if (!value.is_array())
        return std::nullopt;
    std::vector<std::string> texts;
    texts.reserve(value.size());
    for (const json& item : value) {
        const auto* text = item.get_ptr<const std::string*>();
        if (!text)
            return std::nullopt;
        texts.push_back(*text);
    }
    return texts;
}

} // namespace Json

JsonFields::JsonFields(const json& value, Reading reading)
    : object_(value.is_object() ? value : emptyObject), reading_(reading) {
    if (!value.is_object() && reading == Reading::strict)
        throw FormatError("an object was expected");
}

void JsonFields::wrong(const char* key, const char* expected) const {
    if (reading_ == Reading::strict)
        throw FormatError(std::string("the value of \"") + key + "\" is not " + expected);
}

const json* JsonFields::find(const char* key) const {
    const auto found = object_.find(key);
    return found == object_.end() || found->is_null() ? nullptr : &*found;
}

const json* JsonFields::array(const char* key) const {
    const json* value = find(key);
    if (value && !value->is_array()) {
        wrong(key, "a list");
        return nullptr;
    }
    return value;
}

template <class T>
std::optional<T> JsonFields::typed(const char* key, const char* expected) const {
    const json* value = find(key);
    if (!value)
        return std::nullopt;
    auto result = Json::as<T>(*value);
    if (!result)
        wrong(key, expected);
    return result;
}

std::optional<std::string> JsonFields::optionalString(const char* key) const {
    return typed<std::string>(key, "a text");
}
std::optional<bool> JsonFields::optionalBoolean(const char* key) const { return typed<bool>(key, "true or false"); }
std::optional<std::int64_t> JsonFields::optionalInteger(const char* key, std::int64_t min, std::int64_t max) const {
    const auto n = typed<std::int64_t>(key, "a whole number");
    if (!n || (*n >= min && *n <= max))
        return n;
    wrong(key, "within its bounds");
    return std::nullopt;
}
std::optional<double> JsonFields::optionalNumber(const char* key) const { return typed<double>(key, "a number"); }
std::optional<Timestamp> JsonFields::optionalTimestamp(const char* key) const {
    return typed<Timestamp>(key, "a time");
}
std::optional<std::vector<std::string>> JsonFields::optionalStrings(const char* key) const {
    return typed<std::vector<std::string>>(key, "a list of texts");
}

void JsonFields::require(const char* key) const {
    if (!find(key))
        throw FormatError(std::string("the key \"") + key + "\" is missing");
}

std::string JsonFields::string(const char* key) const {
    require(key);
    return optionalString(key).value_or(std::string());
}

} // namespace velmora
