#pragma once

#include <string>
#include <string_view>

namespace velmora {

// True when joining the path to a root cannot lead out of it: not empty, no leading "/", no empty, "." or ".."
// component, no NUL byte.
bool isSafeRelative(std::string_view path);

// Functions on path text only; nothing is looked up on a disk.
namespace RelativePath {

// root + "/" + path, with exactly one "/" between; throws std::invalid_argument unless isSafeRelative(path).
std::string join(std::string_view root, std::string_view path);

std::string_view name(std::string_view path);            // behind the last "/"
std::string_view folder(std::string_view path);          // before the last "/"; empty when there is none
std::string_view stem(std::string_view path);            // the name without its extension; ".x" has no extension
std::string_view extension(std::string_view path);       // without the dot, as written; empty when there is none
std::string withoutTrailingSlash(std::string_view path); // "/" stays "/"

} // namespace RelativePath

} // namespace velmora
