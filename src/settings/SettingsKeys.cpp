#include "settings/SettingsKeys.h"

#include "base/JsonFields.h"
#include "base/Text.h"
#include "settings/SettingsFields.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace velmora::SettingsKeys {

using nlohmann::json;
using Kind = SettingsField::Kind;

namespace {

const SettingsField& fieldOf(std::string_view key) {
    if (const SettingsField* field = SettingsFields::find(key))
        return *field;
    for (const SettingsField& field : SettingsFields::all())
        if (equalIgnoringCase(field.path(), key))
            throw SettingsError(fmt::format("There is no setting “{}”. Did you mean “{}”?", key, field.path()));
    throw SettingsError(fmt::format("There is no setting “{}”.", key));
}

std::string textOf(const json& value) { return value.is_string() ? value.get<std::string>() : Json::compact(value); }

std::vector<std::string> textsOf(const json& value) {
    std::vector<std::string> texts;
    if (value.is_array())
        for (const json& item : value)
            texts.push_back(textOf(item));
    else if (value.is_object())
        for (const auto& [key, item] : value.items())
            texts.push_back(key + "=" + textOf(item));
    else if (!value.is_null())
        texts.push_back(textOf(value));
    return texts;
}

[[noreturn]] void refuse(const SettingsField& field, std::string_view got) {
    const bool several = !field.choices.empty() || field.kind == Kind::boolean;
    throw SettingsError(fmt::format("{} must be {}{} (got “{}”).", field.path(), several ? "one of " : "",
                                    field.allowed(), escapeForDisplay(got)));
}

json booleanOf(const SettingsField& field, const std::string& text) {
    const std::string word = toLower(text);
    if (word == "true" || word == "yes" || word == "on" || word == "1")
        return true;
    if (word == "false" || word == "no" || word == "off" || word == "0")
        return false;
    refuse(field, text);
}

template <class Number>
json numberOf(const SettingsField& field, const std::string& text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto value = static_cast<double>(number);
    if (error != std::errc{} || end != text.data() + text.size() || !std::isfinite(value))
        refuse(field, text);
    if (field.choices.empty() && (value < field.min || value > field.max))
        refuse(field, text);
    return number;
}

json oneOf(const SettingsField& field, const std::string& text) {
    if (!isValidUtf8(text))
        refuse(field, text); // the document could not hold it
    if (!field.choices.empty() && std::find(field.choices.begin(), field.choices.end(), text) == field.choices.end())
        refuse(field, text);
    switch (field.kind) {
    case Kind::boolean:
        return booleanOf(field, text);
    case Kind::integer:
        return numberOf<std::int64_t>(field, text);
    case Kind::number:
        return numberOf<double>(field, text);
    case Kind::path:
    case Kind::paths:
        if (!text.starts_with('/'))
            refuse(field, text);
        return text;
    default:
        return text;
    }
}

json mapOf(const SettingsField& field, const std::vector<std::string>& values) {
    json map = json::object();
    for (const std::string& value : values) {
        const std::size_t equals = value.rfind('='); // the name holds none, the key may
        if (equals == std::string::npos || equals == 0 || equals + 1 == value.size() || !isValidUtf8(value))
            refuse(field, value);
        map[value.substr(0, equals)] = value.substr(equals + 1);
    }
    return map;
}

json valueOf(const SettingsField& field, const std::vector<std::string>& values) {
    const bool list = field.kind == Kind::texts || field.kind == Kind::paths;
    const bool nothing = values.size() == 1 && values[0].empty();
    if (field.kind == Kind::map)
        return nothing ? json::object() : mapOf(field, values);
    if (list) {
        json items = json::array();
        for (const std::string& value : nothing ? std::vector<std::string>{} : values)
            items.push_back(oneOf(field, value));
        return items;
    }
    if (values.size() != 1)
        throw SettingsError(fmt::format("{} takes one value (got {}).", field.path(), values.size()));
    return field.optional && nothing ? json() : oneOf(field, values[0]);
}

// The value is understood from now on, and so is the section that it stands in.
void markReadable(AppSettings& settings, const SettingsField& field) {
    settings.unreadable.erase(field.path());
    if (!field.section.empty())
        settings.unreadable.erase(field.section);
}

bool isLut(const SettingsField& field) {
    return field.path() == "proxy.lutBuiltin" || field.path() == "proxy.lutFallback";
}

// A mode without the LUT that it is about would be taken back, or leave every clip without one.
void checkMode(const ProxySettings& proxy) {
    if (proxy.lutMode == LutMode::builtin && !proxy.lutBuiltin)
        throw SettingsError("proxy.lutMode: set proxy.lutBuiltin first.");
    if (proxy.lutMode == LutMode::custom && !proxy.lutPath)
        throw SettingsError("proxy.lutMode: set proxy.lutPath first.");
}

SettingLine lineOf(const SettingsField& field, const AppSettings& settings, const LutIds& lutIds) {
    static const AppSettings defaults;
    const json value = field.get(settings);
    const bool unreadable = settings.unreadable.contains(field.path()) ||
                            (!field.section.empty() && settings.unreadable.contains(field.section));
    return {field.path(),
            textsOf(value),
            (isLut(field) && lutIds ? join(*lutIds, ", ") : field.allowed()) + (field.optional ? ", or empty" : ""),
            field.note,
            value == field.get(defaults),
            unreadable};
}

} // namespace

std::vector<SettingLine> list(const AppSettings& settings, const LutIds& lutIds) {
    std::vector<SettingLine> lines;
    for (const SettingsField& field : SettingsFields::all())
        lines.push_back(lineOf(field, settings, lutIds));
    return lines;
}

SettingLine show(const AppSettings& settings, std::string_view key, const LutIds& lutIds) {
    return lineOf(fieldOf(key), settings, lutIds);
}

void set(AppSettings& settings, std::string_view key, const std::vector<std::string>& values, const LutIds& lutIds) {
    const SettingsField& field = fieldOf(key);
    const json value = valueOf(field, values);
    if (isLut(field) && value.is_string() && lutIds &&
        std::ranges::find(*lutIds, value.get<std::string>()) == lutIds->end())
        throw SettingsError(fmt::format("{}: there is no built-in LUT “{}”. There are: {}.", key,
                                        escapeForDisplay(value.get<std::string>()), join(*lutIds, ", ")));
    AppSettings changed = settings;
    field.set(changed, value);
    if (key == "proxy.lutMode")
        checkMode(changed.proxy);
    settings = std::move(changed);
    markReadable(settings, field);
}

void reset(AppSettings& settings, std::string_view key) {
    const SettingsField& field = fieldOf(key);
    field.set(settings, field.get(AppSettings()));
    markReadable(settings, field);
}

} // namespace velmora::SettingsKeys
