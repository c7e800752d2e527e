#include "cli/UserSettings.h"

#include "base/Text.h"
#include "cli/Console.h"
#include "cli/TerminalText.h"
#include "proxies/LutCatalog.h"
#include "settings/AppSupport.h"
#include "settings/SettingsStore.h"

#include <fmt/format.h>

#include <algorithm>

namespace velmora {

AppSettings loadSettings(Console& console) try {
    bool damaged = false;
    AppSettings settings = SettingsStore::load(AppSupport::folder(), {}, &damaged);
    if (damaged)
        console.log("settings: settings.json is damaged; the defaults are used, and the file stays as it is.");
    else if (!settings.unreadable.empty())
        console.log(TerminalText::printable(
            fmt::format("settings: settings.json holds something that this version does not understand: {}; the "
                        "defaults are used for it.",
                        join({settings.unreadable.begin(), settings.unreadable.end()}, ", "))));
    const LutIds luts = knownLuts();
    for (const auto& [key, id] :
         {std::pair{"proxy.lutBuiltin", settings.proxy.lutBuiltin}, {"proxy.lutFallback", settings.proxy.lutFallback}})
        if (luts && id && std::ranges::find(*luts, *id) == luts->end())
            console.log(TerminalText::printable(fmt::format(
                "settings: {} names a built-in LUT that this version does not have: {}; it is left out.", key, *id)));
    SettingsStore::normalize(settings, luts);
    return settings;
} catch (const IOError& error) {
    console.log(TerminalText::printable(
        fmt::format("settings: settings.json cannot be read; the defaults are used: {}", error.what())));
    return {};
}

LutIds knownLuts() {
    std::vector<std::string> ids = LutCatalog::load().ids();
    return ids.empty() ? std::nullopt : LutIds(std::move(ids));
}

} // namespace velmora
