#include "luts/Recipe.h"

#include <cstdio>
#include <fstream>

// Writes the catalogue of built-in LUTs into a folder: make_luts data/luts. What it writes is kept in the tree, and a
// test holds the two against each other.
int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: make_luts FOLDER\n", stderr);
        return 2;
    }
    const std::string folder = std::string(argv[1]) + "/";
    const auto write = [&](const std::string& name, const std::string& text) {
        std::ofstream file(folder + name, std::ios::binary);
        return static_cast<bool>(file << text << std::flush);
    };
    bool written = write("luts.json", velmora::luts::catalog());
    for (const velmora::luts::Recipe& recipe : velmora::luts::all())
        written = write(recipe.file(), recipe.cube()) && written;
    if (!written)
        std::fprintf(stderr, "make_luts: cannot write to %s\n", argv[1]);
    return written ? 0 : 1;
}
