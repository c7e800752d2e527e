#include "cli/ShellText.h"

#include "base/Text.h"

#include <string_view>

namespace velmora {

std::string ShellText::quoted(const std::string& path) { return "'" + replaceAll(path, "'", "'\\''") + "'"; }

std::string ShellText::commandLine(std::span<const char* const> words) {
    constexpr std::string_view plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_./=:,+@";
    std::string line = "velmora";
    for (const std::string_view word : words.subspan(words.empty() ? 0 : 1)) {
        const bool needsNone = !word.empty() && word.find_first_not_of(plain) == std::string_view::npos;
        line += " " + (needsNone ? std::string(word) : quoted(std::string(word)));
    }
    return line;
}

} // namespace velmora
