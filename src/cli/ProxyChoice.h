#pragma once

#include "records/AppSettings.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velmora {

struct LutCatalog;

// What a person has typed about proxies. What he has not typed is taken from the settings.
struct ProxyChoice {
    std::vector<std::pair<std::string, std::string>> values; // key below "proxy." and text
    std::optional<std::string> lut;
    std::optional<std::string> lutFallback;

    // Throws UsageError when a value is none.
    void applyTo(AppSettings& settings, const LutCatalog& catalog) const;
};

} // namespace velmora
