#pragma once

#include <string>
#include <vector>

namespace velmora {

// A path as typed, made absolute: reports and the history outlive the folder in which the command was typed.
namespace TypedPath {

std::string absolute(const std::string& typed);
std::vector<std::string> absolute(const std::vector<std::string>& typed);

} // namespace TypedPath

} // namespace velmora
