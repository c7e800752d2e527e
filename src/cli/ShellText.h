#pragma once

#include <span>
#include <string>

namespace velmora {

// Text as a shell takes it.
namespace ShellText {

std::string quoted(const std::string& path);
// "velmora" and what was typed after it; only words that need it are quoted.
std::string commandLine(std::span<const char* const> words);

} // namespace ShellText

} // namespace velmora
