#pragma once

#include "base/JsonFields.h"
#include "base/JsonReader.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <concepts>
#include <tuple>

// The shape of a record as JSON, said once: a tuple of fields, each a key with its member. The record is read and
// written by it, so that the two cannot drift apart. Only for .cpp files: the JSON library is slow to compile.
namespace velmora::JsonShape {

template <class T>
inline constexpr bool isOptional = false;
template <class T>
inline constexpr bool isOptional<std::optional<T>> = true;
template <class T>
inline constexpr bool isVector = false;
template <class T>
inline constexpr bool isVector<std::vector<T>> = true;

// An element of a list; none when it is of another type. An optional text is null where there is none.
template <class T>
std::optional<T> element(const nlohmann::json& item) {
    if constexpr (std::same_as<T, bool>)
        return item.is_boolean() ? std::optional(item.get<bool>()) : std::nullopt;
    else if constexpr (std::same_as<T, std::optional<std::string>>) {
        if (item.is_null())
            return std::optional<T>(std::in_place);
        return item.is_string() ? std::optional<T>(item.get<std::string>()) : std::nullopt;
    } else
        return item.get<T>();
}

// The value of a key; none when missing. The bounds are those of a whole number.
template <class T>
std::optional<T> read(const JsonFields& fields, const char* key, std::int64_t min, std::int64_t max) {
    if constexpr (std::same_as<T, bool>)
        return fields.optionalBoolean(key);
    else if constexpr (std::same_as<T, std::int64_t>)
        return fields.optionalInteger(key, min, max);
    else if constexpr (std::same_as<T, double>)
        return fields.optionalNumber(key);
    else if constexpr (std::same_as<T, std::string>)
        return fields.optionalString(key);
    else if constexpr (std::same_as<T, Timestamp>)
        return fields.optionalTimestamp(key);
    else if constexpr (std::same_as<T, std::vector<std::string>>)
        return fields.optionalStrings(key);
    else if constexpr (isVector<T>) {
        const nlohmann::json* list = fields.array(key);
        if (!list)
            return std::nullopt;
        T values;
        values.reserve(list->size());
        for (const nlohmann::json& item : *list)
            if (auto value = element<typename T::value_type>(item))
                values.push_back(*std::move(value));
            else
                fields.wrong(key, "a list of such values");
        return values;
    } else {
        const nlohmann::json* value = fields.find(key);
        return value ? std::optional(value->get<T>()) : std::nullopt;
    }
}

// The value that comes next in the text, by way of a tree of values.
template <class T>
void valueInto(T& value, JsonReader& in, const char* key, std::int64_t min, std::int64_t max) {
    nlohmann::json object = nlohmann::json::object();
    nlohmann::json& seen = object[key] = in.value();
    if constexpr (std::same_as<T, Timestamp>)
        if (const auto* text = seen.template get_ptr<const std::string*>())
            if (const auto time = TimeText::parseIso8601(*text)) {
                value = *time;
                return;
            }
    if (auto given = read<T>(JsonFields(object), key, min, max))
        value = *std::move(given);
}

// The value that comes next in the text, no null: texts and lists without a tree of values between. A record that has a
// `fromReader(JsonReader&, Record&)` beside it is read so too.
template <class T>
void stream(JsonReader& in, const char* key, T& value, std::int64_t min, std::int64_t max) {
    if constexpr (isOptional<T>)
        stream(in, key, value.emplace(), min, max);
    else if constexpr (requires { fromReader(in, value); })
        fromReader(in, value);
    else if constexpr (requires(typename T::value_type& each) { fromReader(in, each); }) {
        value.clear();
        in.array([&] { fromReader(in, value.emplace_back()); });
    } else if constexpr (std::same_as<T, std::string>) {
        if (in.kind() == JsonReader::Kind::string)
            value = in.string();
        else
            valueInto(value, in, key, min, max);
    } else if constexpr (std::same_as<T, std::vector<std::string>>) {
        value.clear();
        in.array([&] { value.push_back(in.string()); });
    } else if constexpr (std::same_as<T, std::vector<std::optional<std::string>>>) {
        value.clear();
        in.array([&] { value.push_back(in.isNull() ? std::nullopt : std::optional(in.string())); });
    } else
        valueInto(value, in, key, min, max);
}

template <class T>
void write(nlohmann::json& object, const char* key, const T& value) {
    if constexpr (isOptional<T>) {
        if (value)
            write(object, key, *value);
    } else if constexpr (std::same_as<T, Timestamp>)
        object[key] = TimeText::iso8601(value);
    else if constexpr (std::same_as<T, std::vector<std::optional<std::string>>>) {
        nlohmann::json& list = object[key] = nlohmann::json::array();
        for (const auto& text : value)
            list.push_back(text ? nlohmann::json(*text) : nlohmann::json());
    } else
        object[key] = value;
}

// What a missing key means, and when a key is written.
enum class Presence {
    required,  // an error; always
    defaulted, // the value of a new record; always, but an optional only with a value
    ifAny,     // the value of a new record; only when it is not empty
};

template <class Record, class T>
struct Field {
    const char* key;
    T Record::* member;
    Presence presence;
    std::int64_t min, max; // of a whole number

    void readInto(Record& record, const JsonFields& fields) const {
        if constexpr (isOptional<T>)
            record.*member = read<typename T::value_type>(fields, key, min, max);
        else if (auto value = read<T>(fields, key, min, max))
            record.*member = *std::move(value);
        else if (presence == Presence::required)
            fields.require(key);
    }
    // False for a null, which counts as missing.
    bool streamInto(Record& record, JsonReader& in) const {
        if (in.isNull()) {
            record.*member = Record{}.*member; // also where the key stood before
            return false;
        }
        stream(in, key, record.*member, min, max);
        return true;
    }
    bool isRequired() const { return presence == Presence::required; }
    void writeTo(nlohmann::json& object, const Record& record) const {
        if constexpr (requires(const T& value) { value.empty(); })
            if (presence == Presence::ifAny && (record.*member).empty())
                return;
        write(object, key, record.*member);
    }
};

template <class Record, class T>
constexpr Field<Record, T> required(const char* key, T Record::* member) {
    return {key, member, Presence::required, JsonFields::lowest, JsonFields::highest};
}
template <class Record>
constexpr Field<Record, std::int64_t> required(const char* key, std::int64_t Record::* member, std::int64_t min,
                                               std::int64_t max) {
    return {key, member, Presence::required, min, max};
}
template <class Record, class T>
constexpr Field<Record, T> field(const char* key, T Record::* member, std::int64_t min = JsonFields::lowest,
                                 std::int64_t max = JsonFields::highest) {
    return {key, member, Presence::defaulted, min, max};
}
template <class Record, class T>
constexpr Field<Record, T> ifAny(const char* key, T Record::* member) {
    return {key, member, Presence::ifAny, JsonFields::lowest, JsonFields::highest};
}

// A case of an enumeration, by its name. `parse` gives nothing for a name that it refuses.
template <class Record, class T, class Parse>
struct Named {
    const char* key;
    T Record::* member;
    Parse* parse;

    void readInto(Record& record, const JsonFields& fields) const {
        const auto text = fields.optionalString(key);
        if (!text)
            return;
        const std::optional value = parse(*text);
        if (!value)
            return fields.wrong(key, "a known name");
        const auto& known = *value; // the member may be optional as well
        record.*member = known;
    }
    bool streamInto(Record& record, JsonReader& in) const {
        record.*member = Record{}.*member;
        nlohmann::json object = nlohmann::json::object();
        object[key] = in.value();
        readInto(record, JsonFields(object));
        return true;
    }
    bool isRequired() const { return false; }
    void writeTo(nlohmann::json& object, const Record& record) const {
        if constexpr (isOptional<T>) {
            if (record.*member)
                object[key] = name(*(record.*member));
        } else
            object[key] = name(record.*member);
    }
};

template <class Record, class T, class Parse>
constexpr Named<Record, T, Parse> named(const char* key, T Record::* member, Parse& parse) {
    return {key, member, &parse};
}

// Into a record that has the defaults.
template <class Record, class... Fields>
void readInto(Record& record, const JsonFields& fields, const std::tuple<Fields...>& shape) {
    std::apply([&](const Fields&... each) { (each.readInto(record, fields), ...); }, shape);
}

template <class Record, class... Fields>
Record decoded(const nlohmann::json& j, const std::tuple<Fields...>& shape,
               JsonFields::Reading reading = JsonFields::Reading::strict) {
    Record record;
    readInto(record, JsonFields(j, reading), shape);
    return record;
}

// The same from the object that comes next in the text. `other` is called for each key that is not of the shape, and
// consumes its value.
template <class Record, class Other, class... Fields>
void streamInto(Record& record, JsonReader& in, const std::tuple<Fields...>& shape, const Other& other) {
    record = {};
    std::array<bool, sizeof...(Fields)> present{};
    in.object([&](std::string_view key) {
        const auto takes = [&](const auto& each, bool& isPresent) {
            if (key != each.key)
                return false;
            isPresent = each.streamInto(record, in);
            return true;
        };
        std::size_t i = 0;
        if (!std::apply([&](const Fields&... each) { return (takes(each, present[i++]) || ...); }, shape))
            other(key);
    });
    const auto require = [](const auto& each, bool isPresent) {
        if (!isPresent && each.isRequired())
            JsonFields(nlohmann::json::object()).require(each.key);
    };
    std::size_t i = 0;
    std::apply([&](const Fields&... each) { (require(each, present[i++]), ...); }, shape);
}
template <class Record, class... Fields>
void streamInto(Record& record, JsonReader& in, const std::tuple<Fields...>& shape) {
    streamInto(record, in, shape, [&](std::string_view) { in.skip(); });
}

template <class Record, class... Fields>
nlohmann::json encoded(const Record& record, const std::tuple<Fields...>& shape) {
    nlohmann::json object = nlohmann::json::object();
    std::apply([&](const Fields&... each) { (each.writeTo(object, record), ...); }, shape);
    return object;
}

// The keys of a shape, sorted.
template <class... Fields>
constexpr std::array<std::string_view, sizeof...(Fields)> keys(const std::tuple<Fields...>& shape) {
    auto all = std::apply([](const Fields&... each) { return std::array{std::string_view(each.key)...}; }, shape);
    std::ranges::sort(all);
    return all;
}

} // namespace velmora::JsonShape
