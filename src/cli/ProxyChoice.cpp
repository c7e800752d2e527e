#include "cli/ProxyChoice.h"

#include "cli/Command.h"
#include "cli/TypedPath.h"
#include "proxies/LutOption.h"
#include "settings/SettingsKeys.h"

namespace velmora {

void ProxyChoice::applyTo(AppSettings& settings, const LutCatalog& catalog) const {
    for (const auto& [key, text] : values)
        try {
            SettingsKeys::set(settings, "proxy." + key, {text});
        } catch (const SettingsError& error) {
            throw UsageError(error.what());
        }
    auto typed = LutOption::parse(lut, lutFallback, catalog);
    if (typed.error)
        throw UsageError(*typed.error);
    if (typed.path)
        typed.path = TypedPath::absolute(*typed.path);
    if (typed.fallback && LutOption::isCubePath(*typed.fallback))
        typed.fallback = TypedPath::absolute(*typed.fallback);
    typed.applyTo(settings.proxy);
}

} // namespace velmora
