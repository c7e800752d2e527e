#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::test {

// Files with content that a number decides, and the comparison of trees.
namespace FileTree {

// The same seed gives the same bytes; a longer piece begins with the shorter one. It does not compress.
std::string bytes(std::uint64_t seed, std::size_t count);

// Writes a file, making its parent folders; `modified` in seconds since 1970, 0 leaves the time alone.
void write(const std::string& path, std::string_view content, std::int64_t modified = 0);
std::string read(const std::string& path);

// Flips one bit in place, past the page cache as far as the file system allows, and keeps the file's times.
void flipBit(const std::string& path, std::int64_t offset, int bit = 0);

struct File {
    std::string path; // relative; an empty folder ends in "/"
    std::size_t size = 0;
};
// Makes all of them below `root`; content from `seed` and the path, times a minute apart from 2026-03-14 08:00:00 UTC.
void make(const std::string& root, const std::vector<File>& files, std::uint64_t seed = 1);

// Relative path → content of every file, "/" for every folder (whose path ends in "/"), "-> target" for links.
std::map<std::string, std::string> contents(const std::string& root);

} // namespace FileTree

} // namespace velmora::test
