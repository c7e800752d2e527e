#pragma once

#include "base/JsonFields.h"

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
        if (const std::optional value = parse(*text))
            record.*member = *value;
        else
            fields.wrong(key, "a known name");
    }
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
