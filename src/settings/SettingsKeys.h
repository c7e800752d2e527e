#pragma once

#include "records/AppSettings.h"
#include "settings/SettingsStore.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// A key or a value that cannot be set. `what()` says what can.
class SettingsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One setting for a person to see.
struct SettingLine {
    std::string key;                 // "verify", "proxy.height"
    std::vector<std::string> values; // several for a list; "key=name" each for a map; none when absent or empty
    std::string allowed;             // what it may be
    std::string note;                // what a person should know of it; mostly empty
    bool isDefault = true;
    bool unreadable = false; // the document holds something here that this version does not understand
};

// Settings by their key paths, as a person types them.
namespace SettingsKeys {

std::vector<SettingLine> list(const AppSettings& settings, const LutIds& lutIds = {});
SettingLine show(const AppSettings& settings, std::string_view key, const LutIds& lutIds = {}); // throws SettingsError

// Sets one key. Lists and maps take any number of values, all others one. One empty value makes an optional setting
// absent and a list empty. A LUT mode that needs another setting is refused while that is empty. Throws SettingsError,
// and then nothing has changed.
void set(AppSettings& settings, std::string_view key, const std::vector<std::string>& values,
         const LutIds& lutIds = {});
void reset(AppSettings& settings, std::string_view key); // back to the default; throws SettingsError

} // namespace SettingsKeys

} // namespace velmora
