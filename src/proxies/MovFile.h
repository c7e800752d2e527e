#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// A finished MOV, seen from outside: a list of boxes.
namespace MovFile {

// Why the file is not whole; none when it is: a list of boxes that ends where the file ends, with the index in front of
// the media. ffmpeg has ended with success on a full disk, with the index cut short or missing.
std::optional<std::string> problem(const std::string& path);

// Adds words of this program's own at the end, in a box that players pass over. Throws IOError.
void append(const std::string& path, std::string_view words);
// What was added; none when there is nothing or the file cannot be read.
std::optional<std::string> appended(const std::string& path);

} // namespace MovFile

} // namespace velmora
