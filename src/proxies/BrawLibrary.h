#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Blackmagic's library, which braw-decode needs to read clips. Each of the maker's programs brings it along.
namespace BrawLibrary {

inline constexpr const char* fileName = "libBlackmagicRawAPI.so";

// Where it is looked for: beside the decoder and in "lib" beside the decoder's folder, then where the maker's SDK,
// Player and DaVinci Resolve put it.
std::vector<std::string> places(const std::string& decoder);

// The folder that holds it.
std::optional<std::string> find(const std::string& decoder);

} // namespace BrawLibrary

} // namespace velmora
