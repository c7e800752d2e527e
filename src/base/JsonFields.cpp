#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace velmora {

using nlohmann::json;

namespace {

// Builds the document from the parser's events: bounds the nesting, and hands the elements of one long array away.
class Builder : public nlohmann::json_sax<json> {
public:
    Builder() = default;
    Builder(std::string_view streamed, const std::function<void(json&&)>& element, const std::function<void()>& restart)
        : streamed_(streamed), element_(&element), restart_(&restart) {}

    json take() { return std::move(root_); }

    bool null() override { return value(nullptr); }
    bool boolean(bool v) override { return value(v); }
    bool number_integer(number_integer_t v) override { return value(v); }
    bool number_unsigned(number_unsigned_t v) override { return value(v); }
    bool number_float(number_float_t v, const string_t&) override { return value(v); }
    bool string(string_t& v) override { return value(std::move(v)); }
    bool binary(binary_t&) override { throw FormatError("binary data in JSON"); }
    bool start_object(std::size_t) override { return open(json::object()); }
    bool start_array(std::size_t) override {
        if (element_ && stack_.size() == 1 && stack_[0].value->is_object() && key_ == streamed_) {
            if (streamedSeen_)
                (*restart_)();
            streamedSeen_ = true;
        }
        return open(json::array());
    }
    bool key(string_t& v) override {
        key_ = std::move(v);
        return true;
    }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
        throw FormatError(e.what());
    }

private:
    struct Level {
        json* value;
        bool streams; // its elements are handed away
    };

    // Puts a value where it belongs; null when it is the element that is to be handed away once complete.
    json* place(json v) {
        if (stack_.empty()) {
            root_ = std::move(v);
            return &root_;
        }
        Level& top = stack_.back();
        if (top.streams) {
            pending_ = std::move(v);
            return &pending_;
        }
        if (top.value->is_array()) {
            top.value->push_back(std::move(v));
            return &top.value->back();
        }
        // Our own records have their keys in order: the place of the next one is known.
        auto& members = top.value->get_ref<json::object_t&>();
        return &members.insert_or_assign(members.end(), std::move(key_), std::move(v))->second;
    }
    void hand() {
        if (!stack_.empty() && stack_.back().streams)
            (*element_)(std::move(pending_));
    }
    template <class T>
    bool value(T&& v) {
        place(json(std::forward<T>(v)));
        hand();
        return true;
    }
    bool open(json container) {
        if (stack_.size() >= static_cast<std::size_t>(Json::maxDepth))
            throw FormatError("JSON is nested too deeply");
        const bool streams =
            element_ && container.is_array() && stack_.size() == 1 && stack_[0].value->is_object() && key_ == streamed_;
        json* placed = place(std::move(container));
        stack_.push_back({placed, streams});
        return true;
    }
    bool close() {
        stack_.pop_back();
        hand();
        return true;
    }

    json root_;
    json pending_;
    std::vector<Level> stack_;
    std::string key_;
    std::string_view streamed_;
    const std::function<void(json&&)>* element_ = nullptr;
    const std::function<void()>* restart_ = nullptr;
    bool streamedSeen_ = false;
};

json run(Builder& builder, std::string_view text) {
    json::sax_parse(text.begin(), text.end(), &builder);
    return builder.take();
}

std::string dump(const json& value, int indent) {
    return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

template <class T>
void putOptional(json& object, const char* key, const std::optional<T>& value) {
    if (value)
        object[key] = *value;
}

} // namespace

namespace Json {

json parse(std::string_view text) {
    Builder builder;
    return run(builder, text);
}

json parseStreaming(std::string_view text, std::string_view key, const std::function<void(json&&)>& element,
                    const std::function<void()>& restart) {
    Builder builder(key, element, restart);
    return run(builder, text);
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

void put(json& object, const char* key, Timestamp value) { object[key] = TimeText::iso8601(value); }
void put(json& object, const char* key, const std::optional<std::string>& value) { putOptional(object, key, value); }
void put(json& object, const char* key, const std::optional<bool>& value) { putOptional(object, key, value); }
void put(json& object, const char* key, const std::optional<std::int64_t>& value) { putOptional(object, key, value); }
void put(json& object, const char* key, const std::optional<double>& value) { putOptional(object, key, value); }
void put(json& object, const char* key, const std::optional<std::vector<std::string>>& value) {
    putOptional(object, key, value);
}
void put(json& object, const char* key, const std::optional<Timestamp>& value) {
    if (value)
        put(object, key, *value);
}

} // namespace Json

namespace {

const json emptyObject = json::object();

[[noreturn]] void missing(const char* key) { throw FormatError(std::string("the key \"") + key + "\" is missing"); }

template <class T>
T required(const char* key, std::optional<T> value) {
    if (!value)
        missing(key);
    return *std::move(value);
}

// 2^63 as a double; a double below it and at or above its negative fits into 64 bits.
constexpr double twoTo63 = 9223372036854775808.0;

std::optional<std::int64_t> wholeNumber(const json& value) {
    if (value.is_number_unsigned()) {
        const auto n = value.get<std::uint64_t>();
        return n <= static_cast<std::uint64_t>(JsonFields::highest) ? std::optional(static_cast<std::int64_t>(n))
                                                                    : std::nullopt;
    }
    if (value.is_number_integer())
        return value.get<std::int64_t>();
    if (value.is_number_float()) {
        const double n = value.get<double>();
        if (std::trunc(n) == n && n >= -twoTo63 && n < twoTo63)
            return static_cast<std::int64_t>(n);
    }
    return std::nullopt;
}

} // namespace

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

const json& JsonFields::at(const char* key) const {
    const json* value = find(key);
    if (!value)
        missing(key);
    return *value;
}

const json* JsonFields::array(const char* key) const {
    const json* value = find(key);
    if (value && !value->is_array()) {
        wrong(key, "a list");
        return nullptr;
    }
    return value;
}

std::optional<std::string> JsonFields::optionalString(const char* key) const {
    const json* value = find(key);
    if (!value)
        return std::nullopt;
    if (const auto* text = value->get_ptr<const std::string*>())
        return *text;
    wrong(key, "a text");
    return std::nullopt;
}

std::optional<bool> JsonFields::optionalBoolean(const char* key) const {
    const json* value = find(key);
    if (!value)
        return std::nullopt;
    if (value->is_boolean())
        return value->get<bool>();
    wrong(key, "true or false");
    return std::nullopt;
}

std::optional<std::int64_t> JsonFields::optionalInteger(const char* key, std::int64_t min, std::int64_t max) const {
    const json* value = find(key);
    if (!value)
        return std::nullopt;
    const auto n = wholeNumber(*value);
    if (n && *n >= min && *n <= max)
        return n;
    wrong(key, n ? "within its bounds" : "a whole number");
    return std::nullopt;
}

std::optional<double> JsonFields::optionalNumber(const char* key) const {
    const json* value = find(key);
    if (!value)
        return std::nullopt;
    if (value->is_number() && std::isfinite(value->get<double>()))
        return value->get<double>();
    wrong(key, "a number");
    return std::nullopt;
}

std::optional<Timestamp> JsonFields::optionalTimestamp(const char* key) const {
    const json* value = find(key);
    if (!value)
        return std::nullopt;
    if (const auto* text = value->get_ptr<const std::string*>())
        if (const auto time = TimeText::parseIso8601(*text))
            return time;
    wrong(key, "a time");
    return std::nullopt;
}

std::optional<std::vector<std::string>> JsonFields::optionalStrings(const char* key) const {
    const json* list = array(key);
    if (!list)
        return std::nullopt;
    std::vector<std::string> result;
    result.reserve(list->size());
    for (const json& item : *list) {
        const auto* text = item.get_ptr<const std::string*>();
        if (!text) {
            wrong(key, "a list of texts");
            return std::nullopt;
        }
        result.push_back(*text);
    }
    return result;
}

std::string JsonFields::string(const char* key) const { return required(key, optionalString(key)); }
bool JsonFields::boolean(const char* key) const { return required(key, optionalBoolean(key)); }
std::int64_t JsonFields::integer(const char* key, std::int64_t min, std::int64_t max) const {
    return required(key, optionalInteger(key, min, max));
}
double JsonFields::number(const char* key) const { return required(key, optionalNumber(key)); }
Timestamp JsonFields::timestamp(const char* key) const { return required(key, optionalTimestamp(key)); }
std::vector<std::string> JsonFields::strings(const char* key) const { return required(key, optionalStrings(key)); }

std::string JsonFields::string(const char* key, std::string_view missing) const {
    return optionalString(key).value_or(std::string(missing));
}
bool JsonFields::boolean(const char* key, bool missing) const { return optionalBoolean(key).value_or(missing); }
std::int64_t JsonFields::integerOr(const char* key, std::int64_t missing, std::int64_t min, std::int64_t max) const {
    return optionalInteger(key, min, max).value_or(missing);
}
double JsonFields::number(const char* key, double missing) const { return optionalNumber(key).value_or(missing); }
Timestamp JsonFields::timestamp(const char* key, Timestamp missing) const {
    return optionalTimestamp(key).value_or(missing);
}

} // namespace velmora
