#include "proxies/LutCatalog.h"

#include "base/Errors.h"
#include "base/JsonFields.h"
#include "platform/AppSupportFolder.h"
#include "platform/IO.h"
#include "platform/OwnProgram.h"
#include "proxies/CubeCheck.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>

namespace velmora {

namespace {

constexpr std::string_view listName = "/luts.json";
constexpr std::int64_t largestList = 1 << 20;

// A name that stays in its folder.
bool isPlainName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find_first_of(std::string_view("/\0", 2)) == name.npos;
}

bool isFile(const std::string& path) noexcept try {
    return IO::exists(path) && IO::stat(path).isFile;
} catch (const std::exception&) {
    return false;
}

std::optional<BuiltinLut> readLut(const nlohmann::json& entry, const std::string& folder) try {
    const JsonFields fields(entry);
    BuiltinLut lut{fields.string("id"),
                   fields.string("name"),
                   fields.string("maker"),
                   fields.string("file"),
                   fields.string("curve"),
                   fields.string("gamut"),
                   {}};
    if (!isPlainName(lut.id) || !isPlainName(lut.file))
        return std::nullopt;
    lut.path = folder + "/" + lut.file;
    return lut;
} catch (const FormatError&) {
    return std::nullopt;
}

} // namespace

LutCatalog LutCatalog::parse(std::string_view text, const std::string& folder) {
    LutCatalog catalog{folder, {}};
    try {
        const nlohmann::json list = Json::parse(text);
        if (list.is_array())
            for (const nlohmann::json& entry : list)
                if (auto lut = readLut(entry, folder); lut && !catalog.find(lut->id))
                    catalog.luts.push_back(*std::move(lut));
    } catch (const FormatError&) { // a damaged list is an empty one
    }
    return catalog;
}

LutCatalog LutCatalog::load(const std::string& folder) try {
    LutCatalog catalog = parse(IO::readFile(folder + std::string(listName), largestList), folder);
    std::erase_if(catalog.luts, [](const BuiltinLut& lut) { return !isFile(lut.path); });
    return catalog;
} catch (const IOError&) {
    return {folder, {}};
}

LutCatalog LutCatalog::load() {
    const auto folder = defaultFolder();
    return folder ? load(*folder) : LutCatalog();
}

LutCatalog LutCatalog::loadForUser() { return load().withUserOverrides(userFolders()); }

std::optional<std::string> LutCatalog::findFolder(const std::string& program, const std::string& resources) {
    const auto accepted = [](const std::string& folder) { return isFile(folder + std::string(listName)); };
    if (const std::string folder = resources + "/luts"; accepted(folder))
        return folder;
    constexpr std::string_view build = "/build/";
    for (std::size_t at = program.rfind(build); at != std::string::npos && at > 0; at = program.rfind(build, at - 1))
        if (const std::string folder = program.substr(0, at) + "/data/luts"; accepted(folder))
            return folder;
    return std::nullopt;
}

std::optional<std::string> LutCatalog::defaultFolder() {
    const std::string program = ownProgram();
    const std::filesystem::path tree = std::filesystem::path(program).parent_path().parent_path();
    return findFolder(program, (tree / "share/velmora").string());
}

std::vector<std::string> LutCatalog::userFolders() {
    std::vector<std::string> folders = AppSupportFolder::searchFolders();
    for (std::string& folder : folders)
        folder += "/luts";
    return folders;
}

LutCatalog LutCatalog::withUserOverrides(const std::vector<std::string>& folders) const {
    LutCatalog changed = *this;
    for (BuiltinLut& lut : changed.luts)
        for (const std::string& own : folders)
            if (const std::string path = own + "/" + lut.id + ".cube"; isValidCube(path)) {
                lut.path = path;
                lut.name += " (own file)";
                break;
            }
    return changed;
}

namespace {

bool isValid(const std::string& path, CubeCheck check) {
    if (!isFile(path)) // a pipe or a device would never end
        return false;
    std::ifstream file(path, std::ios::binary);
    std::array<char, 1 << 16> piece{};
    while (file.read(piece.data(), piece.size()) || file.gcount() > 0) {
        const auto answer = check.feed({piece.data(), static_cast<std::size_t>(file.gcount())});
        if (answer != CubeCheck::Answer::open)
            return answer == CubeCheck::Answer::valid;
    }
    return !file.bad() && check.end() == CubeCheck::Answer::valid;
}

} // namespace

bool LutCatalog::isValidCube(const std::string& path) { return isValid(path, CubeCheck()); }

bool LutCatalog::copyCube(const std::string& path, const std::string& to) {
    std::ofstream file(to, std::ios::binary);
    if (!isValid(path, CubeCheck([&](std::string_view line) { file << line << '\n'; })))
        return false;
    file.close();
    if (!file)
        throw IOError("write", to, errno);
    return true;
}

const BuiltinLut* LutCatalog::find(std::string_view id) const {
    const auto found = std::ranges::find(luts, id, &BuiltinLut::id);
    return found == luts.end() ? nullptr : &*found;
}

std::vector<std::string> LutCatalog::ids() const {
    std::vector<std::string> ids;
    for (const BuiltinLut& lut : luts)
        ids.push_back(lut.id);
    return ids;
}

} // namespace velmora
