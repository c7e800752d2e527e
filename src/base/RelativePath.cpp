#include "base/RelativePath.h"

#include "base/Text.h"

#include <stdexcept>

namespace velmora {

bool isSafeRelative(std::string_view path) {
    if (path.find('\0') != std::string_view::npos)
        return false;
    for (const std::string_view part : split(path, '/'))
        if (part.empty() || part == "." || part == "..")
            return false;
    return true;
}

namespace RelativePath {

namespace {

std::size_t dotOf(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    return dot == 0 ? std::string_view::npos : dot;
}

} // namespace

std::string join(std::string_view root, std::string_view path) {
    if (!isSafeRelative(path))
        throw std::invalid_argument("unsafe relative path: " + escapeForDisplay(path));
    std::string result(root);
    if (!result.ends_with('/'))
        result += '/';
    result += path;
    return result;
}

std::string_view name(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view folder(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view{} : path.substr(0, slash);
}

std::string_view stem(std::string_view path) {
    const std::string_view last = name(path);
    return last.substr(0, dotOf(last));
}

std::string_view extension(std::string_view path) {
    const std::string_view last = name(path);
    const std::size_t dot = dotOf(last);
    return dot == std::string_view::npos ? std::string_view{} : last.substr(dot + 1);
}

std::string withoutTrailingSlash(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    return std::string(path);
}

} // namespace RelativePath

} // namespace velmora
