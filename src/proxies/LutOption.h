#pragma once

#include "proxies/LutCatalog.h"
#include "records/ProxySettings.h"

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The LUT as a person types it: "auto", "none", the id of a built-in LUT or a path that ends in ".cube".
namespace LutOption {

struct Parsed {
    std::optional<LutMode> mode; // none: nothing was typed, or it cannot be used
    std::optional<std::string> builtin;
    std::optional<std::string> path;     // as it was typed
    std::optional<std::string> fallback; // an id, or a path as it was typed; empty: none
    std::optional<std::string> error;    // names the choices
    bool operator==(const Parsed&) const = default;

    // Puts what was typed in place of what is set; what was not typed stays.
    void applyTo(ProxySettings& settings) const;
};

// Both texts are optional. The fallback, for clips whose camera is not recognised, is typed the same way; "none" and
// "auto" mean that such clips get no LUT.
Parsed parse(const std::optional<std::string>& text, const std::optional<std::string>& fallback,
             const LutCatalog& catalog);

bool isCubePath(std::string_view text); // by its ending

} // namespace LutOption

} // namespace velmora
