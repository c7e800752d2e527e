#include "settings/SettingsFields.h"

#include "base/JsonFields.h"
#include "base/Text.h"
#include "settings/SettingsStore.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace velmora {

using nlohmann::json;
using Kind = SettingsField::Kind;

namespace {

// By the rules that all JSON of this program is read by; a table of texts stands in the settings only.
template <class T>
T read(const json& j) {
    if constexpr (std::is_same_v<T, std::map<std::string, std::string>>) {
        if (j.is_object() && std::ranges::all_of(j, [](const json& item) { return item.is_string(); }))
            return j.get<T>();
    } else if (auto value = Json::as<T>(j))
        return *std::move(value);
    throw FormatError("the value has another type");
}

// The way to a value of the settings: a member of them, or one of its members.
template <class T>
auto at(T AppSettings::* member) {
    return [member](auto& settings) -> auto& { return settings.*member; };
}
template <class Section, class T>
auto at(Section AppSettings::* section, T Section::* member) {
    return [section, member](auto& settings) -> auto& { return settings.*section.*member; };
}

template <class At>
using ValueAt = std::remove_cvref_t<std::invoke_result_t<At, AppSettings&>>;

template <class At>
SettingsField field(std::string section, std::string key, Kind kind, At at) {
    SettingsField f;
    f.section = std::move(section);
    f.key = std::move(key);
    f.kind = kind;
    f.get = [at](const AppSettings& s) { return json(at(s)); };
    f.set = [at](AppSettings& s, const json& j) { at(s) = read<ValueAt<At>>(j); };
    return f;
}

template <class At>
SettingsField optionalField(std::string section, std::string key, Kind kind, At at) {
    using T = typename ValueAt<At>::value_type;
    SettingsField f;
    f.section = std::move(section);
    f.key = std::move(key);
    f.kind = kind;
    f.optional = true;
    f.get = [at](const AppSettings& s) { return at(s) ? json(*at(s)) : json(); };
    f.set = [at](AppSettings& s, const json& j) {
        if (j.is_null())
            at(s).reset();
        else
            at(s) = read<T>(j);
    };
    return f;
}

SettingsField choice(SettingsField f, std::vector<std::string> choices) {
    f.choices = std::move(choices);
    return f;
}

SettingsField noted(SettingsField f, std::string note) {
    f.note = std::move(note);
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
    for (const std::int64_t height : SettingsStore::proxyHeights)
        heights.push_back(std::to_string(height));
    return choice(field("proxy", "height", Kind::integer, at(&AppSettings::proxy, &ProxySettings::height)),
                  std::move(heights));
}

std::vector<SettingsField> proxyFields() {
    using namespace SettingsFields;
    return {
        field("proxy", "enabled", Kind::boolean, at(&AppSettings::proxy, &ProxySettings::enabled)),
        heightField(),
        codecField(),
        bounded(field("proxy", "bitrateMbps", Kind::integer, at(&AppSettings::proxy, &ProxySettings::bitrateMbps)),
                minBitrate, maxBitrate),
        optionalField("proxy", "lutPath", Kind::path, at(&AppSettings::proxy, &ProxySettings::lutPath)),
        lutModeField(),
        optionalField("proxy", "lutBuiltin", Kind::text, at(&AppSettings::proxy, &ProxySettings::lutBuiltin)),
        optionalField("proxy", "lutFallback", Kind::text, at(&AppSettings::proxy, &ProxySettings::lutFallback)),
        field("proxy", "burnFilename", Kind::boolean, at(&AppSettings::proxy, &ProxySettings::burnFilename)),
        field("proxy", "burnTimecode", Kind::boolean, at(&AppSettings::proxy, &ProxySettings::burnTimecode)),
        field("proxy", "audio", Kind::boolean, at(&AppSettings::proxy, &ProxySettings::audio)),
        field("proxy", "skipCameraProxies", Kind::boolean, at(&AppSettings::proxy, &ProxySettings::skipCameraProxies)),
        field("proxy", "skipLighterSources", Kind::boolean,
              at(&AppSettings::proxy, &ProxySettings::skipLighterSources)),
        field("proxy", "copyToAllDestinations", Kind::boolean,
              at(&AppSettings::proxy, &ProxySettings::copyToAllDestinations)),
        optionalField("proxy", "extraFolder", Kind::path, at(&AppSettings::proxy, &ProxySettings::extraFolder)),
        bounded(
            optionalField("proxy", "frameAspect", Kind::number, at(&AppSettings::proxy, &ProxySettings::frameAspect)),
            minAspect, maxAspect),
        bounded(field("proxy", "frameScale", Kind::number, at(&AppSettings::proxy, &ProxySettings::frameScale)),
                minScale, 1),
    };
}

std::vector<SettingsField> build() {
    using namespace SettingsFields;
    std::vector<SettingsField> fields{
        field("", "destRoots", Kind::paths, at(&AppSettings::destRoots)),
        field("", "verify", Kind::boolean, at(&AppSettings::verify)),
        field("", "analyzeClips", Kind::boolean, at(&AppSettings::analyzeClips)),
    };
    for (SettingsField& f : proxyFields())
        fields.push_back(std::move(f));
    for (SettingsField& f : std::vector<SettingsField>{
             optionalField("tools", "ffmpeg", Kind::path, at(&AppSettings::tools, &ExternalTools::ffmpeg)),
             optionalField("tools", "ffprobe", Kind::path, at(&AppSettings::tools, &ExternalTools::ffprobe)),
             optionalField("tools", "redline", Kind::path, at(&AppSettings::tools, &ExternalTools::redline)),
             optionalField("tools", "artCmd", Kind::path, at(&AppSettings::tools, &ExternalTools::artCmd)),
             optionalField("tools", "brawDecoder", Kind::path, at(&AppSettings::tools, &ExternalTools::brawDecoder)),
             field("", "portNames", Kind::map, at(&AppSettings::portNames)),
             field("", "autoDestinations", Kind::boolean, at(&AppSettings::autoDestinations)),
             field("", "ignoredVolumes", Kind::texts, at(&AppSettings::ignoredVolumes)),
             field("naming", "suggestFromClips", Kind::boolean,
                   at(&AppSettings::naming, &NamingSettings::suggestFromClips)),
             noted(choice(field("", "hash", Kind::text, at(&AppSettings::hash)), hashes),
                   "Every copy has XXH64 digests. This setting is kept, but “both” adds no MD5 to a copy."),
             field("outputs", "dayReport", Kind::boolean, at(&AppSettings::outputs, &OutputSettings::dayReport)),
             field("outputs", "clipListCsv", Kind::boolean, at(&AppSettings::outputs, &OutputSettings::clipListCsv)),
             field("outputs", "clipListAle", Kind::boolean, at(&AppSettings::outputs, &OutputSettings::clipListAle)),
             field("", "verifyInProxy", Kind::boolean, at(&AppSettings::verifyInProxy)),
             choice(field("", "verifyPrimary", Kind::text, at(&AppSettings::verifyPrimary)), primaries),
             choice(field("", "appearance", Kind::text, at(&AppSettings::appearance)), appearances),
             field("", "oneJobAtATime", Kind::boolean, at(&AppSettings::oneJobAtATime)),
         })
        fields.push_back(std::move(f));
    return fields;
}

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
