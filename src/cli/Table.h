#pragma once

#include <string>
#include <vector>

namespace velmora {

class Console;

// Rows under a heading, each column as wide as its widest cell; the last one may be any length.
namespace Table {

// The first row is the heading. Texts may hold any bytes.
void print(std::vector<std::vector<std::string>> rows, Console& console);

} // namespace Table

} // namespace velmora
