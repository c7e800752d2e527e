#include "mhl/IgnorePatterns.h"

#include <re2/re2.h>

namespace velmora {

namespace {

// A history may come from anybody: the number and the complexity of its patterns are limited.
constexpr std::size_t maxPatterns = 1000;
constexpr std::size_t maxLength = 1000;

std::unique_ptr<RE2> compile(const std::string& expression) {
    RE2::Options options;
    options.set_log_errors(false);
    options.set_dot_nl(true);
    options.set_max_mem(1 << 20);
    auto compiled = std::make_unique<RE2>(expression, options);
    return compiled->ok() ? std::move(compiled) : nullptr;
}

bool matches(const std::unique_ptr<RE2>& expression, std::string_view text) {
    return RE2::FullMatch(re2::StringPiece(text.data(), text.size()), *expression);
}

} // namespace

struct IgnorePatterns::Compiled {
    std::vector<std::unique_ptr<RE2>> folders; // match the path of a folder with its "/"
    std::vector<std::unique_ptr<RE2>> names;   // match a path, or its last name
};

IgnorePatterns::IgnorePatterns(std::span<const std::string> patterns) : compiled_(std::make_unique<Compiled>()) {
    for (const std::string& pattern : patterns.first(std::min(patterns.size(), maxPatterns))) {
        if (pattern.empty() || pattern.size() > maxLength) {
            continue;
        }
        if (auto expression = compile(wildcard(pattern))) {
            (pattern.ends_with('/') ? compiled_->folders : compiled_->names).push_back(std::move(expression));
        }
    }
}

IgnorePatterns::~IgnorePatterns() = default;
IgnorePatterns::IgnorePatterns(IgnorePatterns&&) noexcept = default;
IgnorePatterns& IgnorePatterns::operator=(IgnorePatterns&&) noexcept = default;

bool IgnorePatterns::ignored(std::string_view path) const {
    // Every folder on the way is asked as well: what lies in an ignored folder is ignored with it.
    for (std::size_t end = path.find('/');; end = path.find('/', end + 1)) {
        const std::string_view part = path.substr(0, end);
        const std::string_view name = part.substr(part.find_last_of('/') + 1);
        for (const auto& expression : compiled_->names) {
            if (matches(expression, part) || matches(expression, name)) {
                return true;
            }
        }
        if (end == std::string_view::npos) {
            return false;
        }
        const std::string_view folder = path.substr(0, end + 1);
        for (const auto& expression : compiled_->folders) {
            if (matches(expression, folder)) {
                return true;
            }
        }
    }
}

std::string IgnorePatterns::wildcard(std::string_view pattern) {
    std::string expression;
    for (std::size_t i = 0; i < pattern.size();) {
        const std::string_view rest = pattern.substr(i);
        if (rest.starts_with("**/")) {
            expression += "(.*/)?";
            i += 3;
        } else if (rest.starts_with("**")) {
            expression += ".*";
            i += 2;
        } else if (rest[0] == '*' || rest[0] == '?') {
            expression += rest[0] == '*' ? "[^/]*" : "[^/]";
            i += 1;
        } else {
            // Letters, digits and everything beyond ASCII stand for themselves.
            const auto c = static_cast<unsigned char>(rest[0]);
            const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
                               c == '/' || c >= 0x80;
            if (!plain) {
                expression += '\\';
            }
            expression += rest[0];
            i += 1;
        }
    }
    return expression;
}

} // namespace velmora
