#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// A LUT that the program brings along.
struct BuiltinLut {
    std::string id;
    std::string name;
    std::string maker;
    std::string file;
    std::string curve;
    std::string gamut;
    std::string path; // of the file; not in the catalogue
    bool operator==(const BuiltinLut&) const = default;
};

// The built-in LUTs, as `luts.json` lists them. Whatever is missing or damaged leaves a shorter list, an empty one in
// the end: clips then get no LUT, and each says so.
struct LutCatalog {
    std::optional<std::string> folder;
    std::vector<BuiltinLut> luts;

    static LutCatalog load(); // from the default folder
    static LutCatalog load(const std::string& folder);
    // The same, with the user's own files in place of built-in ones: what a front end works with.
    static LutCatalog loadForUser();
    // What the text of a `luts.json` lists for a folder, whether or not the files are there. Never throws.
    static LutCatalog parse(std::string_view text, const std::string& folder);

    // The LUT folder of this program. An installed program has it in share/velmora/luts beside bin; one in a build
    // folder takes that of its source tree.
    static std::optional<std::string> defaultFolder();
    static std::optional<std::string> findFolder(const std::string& program, const std::string& resources);

    // "luts" in each application-support folder.
    static std::vector<std::string> userFolders();
    // A valid <id>.cube in one of the folders takes the place of the built-in file; the first folder wins.
    LutCatalog withUserOverrides(const std::vector<std::string>& folders) const;

    // Never throws. The file is read only as far as the answer needs.
    static bool isValidCube(const std::string& path);
    // Writes a new file with only what ffmpeg needs of that table. False when the table is not valid; throws IOError
    // when the file cannot be written.
    static bool copyCube(const std::string& path, const std::string& to);

    const BuiltinLut* find(std::string_view id) const; // null: there is none
    std::vector<std::string> ids() const;
};

} // namespace velmora
