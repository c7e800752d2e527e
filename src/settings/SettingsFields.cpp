#include "settings/SettingsFields.h"

#include "base/JsonFields.h"
#include "base/Text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace velmora {

using nlohmann::json;
using Kind = SettingsField::Kind;

namespace {

const char* const value = "value"; // the key under which a single value is looked at

// Reads one value with the rules that all JSON of this program is read by.
template <class T>
T read(const json& j) {
    const json object = {{value, j}};
    const JsonFields fields(object);
    if constexpr (std::is_same_v<T, bool>)
        return fields.boolean(value);
    else if constexpr (std::is_same_v<T, std::int64_t>)
        return fields.integer(value);
    else if constexpr (std::is_same_v<T, double>)
        return fields.number(value);
    else if constexpr (std::is_same_v<T, std::string>)
        return fields.string(value);
    else if constexpr (std::is_same_v<T, std::vector<std::string>>)
        return fields.strings(value);
    else {
        T map;
        if (!j.is_object())
            throw FormatError("an object was expected");
        for (const auto& [key, item] : j.items())
            map[key] = read<std::string>(item);
        return map;
    }
}

// `member` gives the place of the value in the settings.
template <class Member>
SettingsField field(std::string section, std::string key, Kind kind, Member member) {
    using T = std::remove_reference_t<decltype(member(std::declval<AppSettings&>()))>;
    SettingsField f;
    f.section = std::move(section);
    f.key = std::move(key);
    f.kind = kind;
    f.get = [member](const AppSettings& s) { return json(member(const_cast<AppSettings&>(s))); };
    f.set = [member](AppSettings& s, const json& j) { member(s) = read<T>(j); };
    return f;
}

template <class Member>
SettingsField optionalField(std::string section, std::string key, Kind kind, Member member) {
    using T = typename std::remove_reference_t<decltype(member(std::declval<AppSettings&>()))>::value_type;
    SettingsField f;
    f.section = std::move(section);
    f.key = std::move(key);
    f.kind = kind;
    f.optional = true;
    f.get = [member](const AppSettings& s) {
        const auto& held = member(const_cast<AppSettings&>(s));
        return held ? json(*held) : json();
    };
    f.set = [member](AppSettings& s, const json& j) {
        if (j.is_null())
            member(s).reset();
        else
            member(s) = read<T>(j);
    };
    return f;
}

SettingsField choice(SettingsField f, std::vector<std::string> choices) {
    f.choices = std::move(choices);
    return f;
}

SettingsField bounded(SettingsField f, double min, double max) {
    f.min = min;
    f.max = max;
    return f;
}

// An enumeration, stored by name.
template <class Enum>
std::vector<std::string> namesOf(const std::vector<Enum>& cases) {
    std::vector<std::string> names;
    for (const Enum e : cases)
        names.emplace_back(name(e));
    return names;
}

SettingsField codecField() {
    SettingsField f;
    f.section = "proxy";
    f.key = "codec";
    f.choices = namesOf(allProxyCodecs());
    f.get = [](const AppSettings& s) { return json(name(s.proxy.codec)); };
    f.set = [](AppSettings& s, const json& j) {
        const auto codec = proxyCodec(read<std::string>(j));
        if (!codec)
            throw FormatError("no such codec");
        s.proxy.codec = *codec;
    };
    return f;
}

SettingsField lutModeField() {
    SettingsField f;
    f.section = "proxy";
    f.key = "lutMode";
    f.optional = true;
    f.choices = namesOf(allLutModes());
    f.get = [](const AppSettings& s) { return s.proxy.lutMode ? json(name(*s.proxy.lutMode)) : json(); };
    f.set = [](AppSettings& s, const json& j) {
        const auto mode = j.is_null() ? std::nullopt : lutMode(read<std::string>(j));
        if (!j.is_null() && !mode)
            throw FormatError("no such LUT mode");
        s.proxy.lutMode = mode;
    };
    return f;
}

SettingsField heightField() {
    std::vector<std::string> heights;
    for (const std::int64_t height : SettingsFields::proxyHeights)
        heights.push_back(std::to_string(height));
    return choice(field("proxy", "height", Kind::integer, [](AppSettings& s) -> auto& { return s.proxy.height; }),
                  std::move(heights));
}

// The member of the settings, or of one of its sections.
// NOLINTNEXTLINE(bugprone-macro-parentheses): a member behind the dot takes no brackets
#define IN(member) [](AppSettings& s) -> auto& { return s.member; }

std::vector<SettingsField> proxyFields() {
    using namespace SettingsFields;
    return {
        field("proxy", "enabled", Kind::boolean, IN(proxy.enabled)),
        heightField(),
        codecField(),
        bounded(field("proxy", "bitrateMbps", Kind::integer, IN(proxy.bitrateMbps)), minBitrate, maxBitrate),
        optionalField("proxy", "lutPath", Kind::path, IN(proxy.lutPath)),
        lutModeField(),
        optionalField("proxy", "lutBuiltin", Kind::text, IN(proxy.lutBuiltin)),
        optionalField("proxy", "lutFallback", Kind::text, IN(proxy.lutFallback)),
        field("proxy", "burnFilename", Kind::boolean, IN(proxy.burnFilename)),
        field("proxy", "burnTimecode", Kind::boolean, IN(proxy.burnTimecode)),
        field("proxy", "audio", Kind::boolean, IN(proxy.audio)),
        field("proxy", "skipCameraProxies", Kind::boolean, IN(proxy.skipCameraProxies)),
        field("proxy", "skipLighterSources", Kind::boolean, IN(proxy.skipLighterSources)),
        field("proxy", "copyToAllDestinations", Kind::boolean, IN(proxy.copyToAllDestinations)),
        optionalField("proxy", "extraFolder", Kind::path, IN(proxy.extraFolder)),
        bounded(optionalField("proxy", "frameAspect", Kind::number, IN(proxy.frameAspect)), minAspect, maxAspect),
        bounded(field("proxy", "frameScale", Kind::number, IN(proxy.frameScale)), minScale, 1),
    };
}

std::vector<SettingsField> build() {
    using namespace SettingsFields;
    std::vector<SettingsField> fields{
        field("", "destRoots", Kind::paths, IN(destRoots)),
        field("", "verify", Kind::boolean, IN(verify)),
        field("", "analyzeClips", Kind::boolean, IN(analyzeClips)),
    };
    for (SettingsField& f : proxyFields())
        fields.push_back(std::move(f));
    for (SettingsField& f : std::vector<SettingsField>{
             optionalField("tools", "ffmpeg", Kind::path, IN(tools.ffmpeg)),
             optionalField("tools", "ffprobe", Kind::path, IN(tools.ffprobe)),
             optionalField("tools", "redline", Kind::path, IN(tools.redline)),
             optionalField("tools", "artCmd", Kind::path, IN(tools.artCmd)),
             optionalField("tools", "brawDecoder", Kind::path, IN(tools.brawDecoder)),
             field("", "portNames", Kind::map, IN(portNames)),
             field("", "autoDestinations", Kind::boolean, IN(autoDestinations)),
             field("", "ignoredVolumes", Kind::texts, IN(ignoredVolumes)),
             field("naming", "suggestFromClips", Kind::boolean, IN(naming.suggestFromClips)),
             choice(field("", "hash", Kind::text, IN(hash)), hashes),
             field("outputs", "dayReport", Kind::boolean, IN(outputs.dayReport)),
             field("outputs", "clipListCsv", Kind::boolean, IN(outputs.clipListCsv)),
             field("outputs", "clipListAle", Kind::boolean, IN(outputs.clipListAle)),
             field("", "verifyInProxy", Kind::boolean, IN(verifyInProxy)),
             choice(field("", "verifyPrimary", Kind::text, IN(verifyPrimary)), primaries),
             choice(field("", "appearance", Kind::text, IN(appearance)), appearances),
             field("", "oneJobAtATime", Kind::boolean, IN(oneJobAtATime)),
         })
        fields.push_back(std::move(f));
    return fields;
}

#undef IN

} // namespace

std::string SettingsField::allowed() const {
    if (!choices.empty())
        return velmora::join(choices, ", ");
    switch (kind) {
    case Kind::boolean:
        return "true, false";
    case Kind::integer:
        return fmt::format("a whole number from {:.0f} to {:.0f}", min, max);
    case Kind::number:
        return fmt::format("a number from {} to {}", min, max);
    case Kind::text:
        return "a text";
    case Kind::path:
        return "a path that begins with /";
    case Kind::texts:
        return "any number of texts";
    case Kind::paths:
        return "any number of paths that begin with /";
    case Kind::map:
        return "any number of key=name";
    }
    return {};
}

void SettingsField::checkType(const json& j) const {
    AppSettings scratch;
    set(scratch, j);
    if (kind == Kind::text && !choices.empty() && !j.is_null() &&
        std::find(choices.begin(), choices.end(), j.get<std::string>()) == choices.end())
        throw FormatError("none of the choices");
}

const std::vector<SettingsField>& SettingsFields::all() {
    static const std::vector<SettingsField> fields = build();
    return fields;
}

const SettingsField* SettingsFields::find(std::string_view path) {
    const auto& fields = all();
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& f) { return f.path() == path; });
    return found == fields.end() ? nullptr : &*found;
}

} // namespace velmora
