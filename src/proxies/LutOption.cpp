#include "proxies/LutOption.h"

#include "base/Text.h"

#include <fmt/format.h>

namespace velmora::LutOption {

bool isCubePath(std::string_view text) {
    return text.size() > 5 && equalIgnoringCase(text.substr(text.size() - 5), ".cube");
}

namespace {

struct Choice {
    std::optional<LutMode> mode; // none: unknown
    std::optional<std::string> value;
};

Choice read(const std::string& text, const LutCatalog& catalog) {
    if (text == "none")
        return {LutMode::off, {}};
    if (text == "auto")
        return {LutMode::automatic, {}};
    if (catalog.find(text))
        return {LutMode::builtin, text};
    if (isCubePath(text))
        return {LutMode::custom, text};
    return {};
}

std::string unknown(std::string_view what, std::string_view text, const LutCatalog& catalog) {
    return fmt::format("Unknown {} “{}”. Use auto, none, a path to a .cube or one of: {}", what, escapeForDisplay(text),
                       join(catalog.ids(), ", "));
}

} // namespace

Parsed parse(const std::optional<std::string>& text, const std::optional<std::string>& fallback,
             const LutCatalog& catalog) {
    Parsed parsed;
    if (text) {
        const Choice choice = read(*text, catalog);
        parsed.mode = choice.mode;
        (choice.mode == LutMode::custom ? parsed.path : parsed.builtin) = choice.value;
        if (!choice.mode)
            parsed.error = unknown("LUT", *text, catalog);
    }
    if (fallback) {
        const Choice choice = read(*fallback, catalog);
        parsed.fallback = choice.value.value_or("");
        if (!choice.mode)
            parsed.error = unknown("fallback LUT", *fallback, catalog);
    }
    return parsed;
}

void Parsed::applyTo(ProxySettings& settings) const {
    if (mode)
        settings.lutMode = mode;
    if (builtin)
        settings.lutBuiltin = builtin;
    if (path)
        settings.lutPath = path;
    if (fallback)
        settings.lutFallback = fallback->empty() ? std::nullopt : fallback;
}

} // namespace velmora::LutOption
