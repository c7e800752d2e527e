#pragma once

#include <optional>
#include <string>

namespace velmora {

// Looks at a finished MOV from outside.
namespace MovFile {

// Why the file is not whole; none when it is: a list of boxes that ends where the file ends, with the index in front of
// the media. ffmpeg has ended with success on a full disk, with the index cut short or missing.
std::optional<std::string> problem(const std::string& path);

} // namespace MovFile

} // namespace velmora
