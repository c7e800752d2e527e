#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Blackmagic's library, with which braw-decode reads clips. Whoever has one of the maker's programs has it.
namespace BrawLibrary {

inline constexpr const char* fileName = "libBlackmagicRawAPI.so";

// Where it is looked for: beside the decoder and in "lib" beside the decoder's folder, then where the maker's SDK,
// Player and DaVinci Resolve put it.
std::vector<std::string> places(const std::string& decoder);

// The folder that holds it.
std::optional<std::string> find(const std::string& decoder);

} // namespace BrawLibrary

} // namespace velmora
