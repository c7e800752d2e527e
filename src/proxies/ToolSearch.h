#pragma once

#include "records/ExternalTools.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Where the outside programs are. Nothing is ever downloaded, and a missing program is no failure here: who needs it
// says what is lost without it.
namespace ToolSearch {

// The application-support folder and those of earlier names of the product.
std::vector<std::string> supportDirs();

// "bin" beside the program's "share/velmora" of an installed tree, the program's own folder, "Tools/bin" in each of the
// five folders above it, "bin" in each support folder, then /usr/local/bin, /usr/bin, and every /opt/* and
// /opt/*/bin, where makers put programs that come in an archive.
std::vector<std::string> searchDirs(const std::string& program, const std::vector<std::string>& support);
std::vector<std::string> searchDirs(); // of this program

// The first of the folders that holds an executable file of that name.
std::optional<std::string> find(std::string_view name, const std::vector<std::string>& folders);

bool isExecutable(const std::string& path); // a regular file that we may execute

// A copy in which each field holds a usable path or is empty: a configured path that can be executed stays, any other
// is replaced by what is found.
ExternalTools resolved(const ExternalTools& configured, const std::vector<std::string>& folders);
ExternalTools resolved(const ExternalTools& configured);

// "ffmpeg 5.1.9-0+deb12u1 (/usr/bin/ffmpeg)": what a tool of that suite says of itself, for the log and the settings.
// None when it does not answer.
std::optional<std::string> version(const std::string& path);

// "ffmpeg not found — install the package ffmpeg": what is said once where the tool is missing.
std::string missingText(std::string_view name);

} // namespace ToolSearch

} // namespace velmora
