#include "settings/SettingsStore.h"

#include "base/JsonFields.h"
#include "base/Text.h"
#include "base/Timestamp.h"
#include "platform/FileLock.h"
#include "platform/IO.h"
#include "settings/SettingsFields.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>

namespace velmora::SettingsStore {

using nlohmann::json;

namespace {

constexpr std::int64_t largestFile = 4 << 20; // far beyond any settings, far below any trouble
constexpr double lockSeconds = 5;

bool isSection(const std::string& key) {
    const auto& fields = SettingsFields::all();
    return std::any_of(fields.begin(), fields.end(), [&](const auto& f) { return f.section == key; });
}

bool isMerged(const std::string& section) {
    return std::find(mergedSections.begin(), mergedSections.end(), section) != mergedSections.end();
}

// Null counts as missing: a default is not worth a complaint.
const json* member(const json& object, const std::string& key) {
    const auto found = object.find(key);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

void readField(const SettingsField& field, const json& object, AppSettings& settings) {
    const json* value = member(object, field.key);
    if (!value)
        return;
    try {
        field.checkType(*value);
        field.set(settings, *value);
    } catch (const FormatError&) {
        settings.unreadable.insert(field.path());
    }
}

// A section's own keys, each by itself.
void section(const std::string& name, const json& document, AppSettings& settings) {
    const json* value = member(document, name);
    if (!value)
        return;
    if (!value->is_object()) {
        settings.unreadable.insert(name);
        return;
    }
    for (const SettingsField& field : SettingsFields::all())
        if (field.section == name)
            readField(field, *value, settings);
}

json rawObject(const AppSettings& settings) {
    json object = json::object();
    for (const auto& [key, text] : settings.raw) {
        try {
            object[key] = Json::parse(text);
        } catch (const FormatError&) { // somebody put in what is no JSON; there is nothing to keep
        }
    }
    return object;
}

// What a section keeps when it is written: unknown keys, where the section is merged, and values that could not be
// read.
json keptOfSection(const std::string& name, const json& raw, const AppSettings& settings) {
    json kept = json::object();
    const json* old = member(raw, name);
    if (!old || !old->is_object())
        return kept;
    for (const auto& [key, value] : old->items()) {
        const std::string path = name + "." + key;
        const bool known = SettingsFields::find(path) != nullptr;
        if (known ? settings.unreadable.contains(path) : isMerged(name))
            kept[key] = value;
    }
    return kept;
}

template <class T>
void dropRepeated(std::vector<T>& values) {
    std::vector<T> kept;
    for (T& value : values)
        if (!value.empty() && std::find(kept.begin(), kept.end(), value) == kept.end())
            kept.push_back(std::move(value));
    values = std::move(kept);
}

void dropEmpty(std::optional<std::string>& value) {
    if (value && trim(*value).empty())
        value.reset();
}

void chooseOr(std::string& value, const std::vector<std::string>& choices, const std::string& otherwise) {
    if (std::find(choices.begin(), choices.end(), value) == choices.end())
        value = otherwise;
}

void normalizeProxy(ProxySettings& proxy, const LutIds& lutIds) {
    using namespace SettingsFields;
    // The offered height that is nearest; of two, the smaller.
    proxy.height = *std::min_element(proxyHeights.begin(), proxyHeights.end(), [&](std::int64_t a, std::int64_t b) {
        return std::abs(static_cast<double>(a) - static_cast<double>(proxy.height)) <
               std::abs(static_cast<double>(b) - static_cast<double>(proxy.height));
    });
    proxy.bitrateMbps = std::clamp(proxy.bitrateMbps, minBitrate, maxBitrate);
    // NOLINTNEXTLINE(readability-simplify-boolean-expr): written so that a NaN is out of bounds
    if (!(proxy.frameScale > minScale && proxy.frameScale <= 1))
        proxy.frameScale = 1;
    // NOLINTNEXTLINE(readability-simplify-boolean-expr): written so that a NaN is out of bounds
    if (proxy.frameAspect && !(*proxy.frameAspect >= minAspect && *proxy.frameAspect <= maxAspect))
        proxy.frameAspect.reset();
    for (auto* text : {&proxy.lutPath, &proxy.lutBuiltin, &proxy.lutFallback, &proxy.extraFolder})
        dropEmpty(*text);
    const auto known = [&](const std::optional<std::string>& id) {
        return !id || !lutIds || std::ranges::find(*lutIds, *id) != lutIds->end();
    };
    if (!known(proxy.lutFallback))
        proxy.lutFallback.reset();
    if (!known(proxy.lutBuiltin))
        proxy.lutBuiltin.reset();
    if (proxy.lutMode == LutMode::builtin && !proxy.lutBuiltin)
        proxy.lutMode = LutMode::automatic; // better the LUT of the camera than none
}

// Renames a damaged file. It is never read or overwritten again.
void setAside(const std::string& path, const Log& log) {
    const std::string base = path + ".corrupt-" + TimeText::local(Timestamp::now(), "%Y%m%d-%H%M%S");
    for (int n = 1;; ++n) {
        const std::string target = n == 1 ? base : base + "-" + std::to_string(n);
        try {
            IO::renameNoReplace(path, target);
        } catch (const IOError& error) {
            if (error.code() == EEXIST && n < 100)
                continue;
            throw;
        }
        if (log)
            log("settings: damaged settings.json set aside as " + target);
        return;
    }
}

AppSettings loadFile(const std::string& path, const LutIds& lutIds, bool* damaged) {
    if (!IO::exists(path))
        return {};
    return decode(IO::readFile(path, largestFile), lutIds, damaged);
}

} // namespace

AppSettings decode(std::string_view data, const LutIds& lutIds, bool* damaged) {
    AppSettings settings;
    json document;
    try {
        document = Json::parse(data);
    } catch (const FormatError&) {
        document = nullptr;
    }
    if (damaged)
        *damaged = !document.is_object();
    if (!document.is_object())
        return settings;
    for (const auto& [key, value] : document.items())
        settings.raw[key] = Json::compact(value);
    std::string last;
    for (const SettingsField& field : SettingsFields::all()) {
        if (field.section.empty())
            readField(field, document, settings);
        else if (field.section != last)
            section(field.section, document, settings);
        last = field.section;
    }
    normalize(settings, lutIds);
    return settings;
}

std::string encode(const AppSettings& settings) {
    const json raw = rawObject(settings);
    json document = json::object();
    for (const auto& [key, value] : raw.items())
        if (settings.unreadable.contains(key) || (!isSection(key) && !SettingsFields::find(key)))
            document[key] = value;
    for (const SettingsField& field : SettingsFields::all()) {
        if (settings.unreadable.contains(field.section))
            continue;
        if (!field.section.empty() && !document.contains(field.section))
            document[field.section] = keptOfSection(field.section, raw, settings);
        if (settings.unreadable.contains(field.path()))
            continue;
        json value = field.get(settings);
        if (!value.is_null())
            (field.section.empty() ? document : document[field.section])[field.key] = std::move(value);
    }
    return Json::pretty(document) + "\n";
}

void normalize(AppSettings& settings, const LutIds& lutIds) {
    dropRepeated(settings.destRoots);
    dropRepeated(settings.ignoredVolumes);
    for (auto& [port, name] : settings.portNames)
        name = trim(name);
    std::erase_if(settings.portNames, [](const auto& port) { return port.first.empty() || port.second.empty(); });
    normalizeProxy(settings.proxy, lutIds);
    for (auto* tool : {&settings.tools.ffmpeg, &settings.tools.ffprobe, &settings.tools.redline, &settings.tools.artCmd,
                       &settings.tools.brawDecoder})
        dropEmpty(*tool);
    const AppSettings defaults;
    chooseOr(settings.hash, SettingsFields::hashes, defaults.hash);
    chooseOr(settings.verifyPrimary, SettingsFields::primaries, defaults.verifyPrimary);
    chooseOr(settings.appearance, SettingsFields::appearances, defaults.appearance);
}

AppSettings load(const std::string& folder, const LutIds& lutIds, bool* damaged) {
    return loadFile(folder + "/" + std::string(fileName), lutIds, damaged);
}

AppSettings update(const std::string& folder, const std::function<void(AppSettings&)>& change, const LutIds& lutIds,
                   const Log& log) {
    const std::string lockPath = folder + "/locks/settings.lock";
    if (const auto problem = FileLock::problem(lockPath))
        throw IOError(*problem);
    const auto lock = FileLock::lock(lockPath, lockSeconds);
    if (!lock)
        throw IOError("lock", lockPath, EWOULDBLOCK);
    const std::string path = folder + "/" + std::string(fileName);
    bool damaged = false;
    AppSettings settings = loadFile(path, lutIds, &damaged);
    change(settings);
    normalize(settings, lutIds);
    if (damaged)
        setAside(path, log);
    IO::writeFileDurably(path, encode(settings));
    return settings;
}

} // namespace velmora::SettingsStore
