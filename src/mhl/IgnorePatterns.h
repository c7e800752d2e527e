#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The ignore patterns of an ASC MHL history, compiled once for many paths. A pattern that ends in "/" means the folder
// at that place and all below it; any other pattern means a path or a name, and all below it when it is a folder.
class IgnorePatterns {
public:
    explicit IgnorePatterns(std::span<const std::string> patterns);
    ~IgnorePatterns();
    IgnorePatterns(IgnorePatterns&&) noexcept;
    IgnorePatterns& operator=(IgnorePatterns&&) noexcept;

    bool ignored(std::string_view path) const; // relative to the card folder

    // A glob as a regular expression: "**/" any folders, "**" anything, "*" and "?" within one name.
    static std::string wildcard(std::string_view pattern);

private:
    struct Compiled;
    std::unique_ptr<Compiled> compiled_;
};

} // namespace velmora
