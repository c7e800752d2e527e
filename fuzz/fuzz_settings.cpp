#include "Stable.h"
#include "settings/SettingsKeys.h"
#include "settings/SettingsStore.h"

// The settings file, edited by hand or by another version: reading never throws, and writing settles at once.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const LutIds luts = std::vector<std::string>{"", "known"};
    const AppSettings settings = SettingsStore::decode(fuzz::textOf(data, size), luts);
    for (const SettingLine& line : SettingsKeys::list(settings))
        if (line.key.empty() || line.allowed.empty())
            std::abort();
    const std::string once = SettingsStore::encode(settings);
    if (SettingsStore::encode(SettingsStore::decode(once, luts)) != once)
        std::abort();
    return 0;
}
