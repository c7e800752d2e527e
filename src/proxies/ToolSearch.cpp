#include "proxies/ToolSearch.h"

#include "base/Errors.h"
#include "platform/AppSupportFolder.h"
#include "platform/IO.h"
#include "platform/OwnProgram.h"
#include "proxies/ToolProcess.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>

namespace velmora::ToolSearch {

std::vector<std::string> supportDirs() { return AppSupportFolder::searchFolders(); }

std::vector<std::string> searchDirs(const std::string& program, const std::vector<std::string>& support) {
    std::vector<std::string> folders;
    std::filesystem::path folder = std::filesystem::path(program).parent_path();
    if (!folder.empty()) {
        folders.push_back(folder.parent_path() / "share/velmora/bin");
        folders.push_back(folder);
        constexpr int levels = 5;
        for (int level = 0; level < levels && folder.has_relative_path(); ++level) {
            folder = folder.parent_path();
            folders.push_back(folder / "Tools/bin");
        }
    }
    for (const std::string& one : support)
        folders.push_back(one + "/bin");
    folders.insert(folders.end(), {"/usr/local/bin", "/usr/bin"});
    try {
        std::vector<std::string> optional;
        for (const IOEntry& entry : IO::list("/opt")) {
            optional.push_back("/opt/" + entry.name);
            optional.push_back("/opt/" + entry.name + "/bin");
        }
        std::ranges::sort(optional);
        folders.insert(folders.end(), optional.begin(), optional.end());
    } catch (const IOError&) {
        // Most machines have nothing there.
    }
    return folders;
}

std::vector<std::string> searchDirs() { return searchDirs(ownProgram(), supportDirs()); }

std::optional<std::string> find(std::string_view name, const std::vector<std::string>& folders) {
    for (const std::string& folder : folders)
        if (std::string path = folder + "/" + std::string(name); isExecutable(path))
            return path;
    return std::nullopt;
}

bool isExecutable(const std::string& path) { return path.starts_with('/') && IO::isExecutableFile(path); }

ExternalTools resolved(const ExternalTools& configured, const std::vector<std::string>& folders) {
    const auto usable = [&](const std::optional<std::string>& path, std::string_view name) {
        return path && isExecutable(*path) ? path : find(name, folders);
    };
    return {usable(configured.ffmpeg, "ffmpeg"), usable(configured.ffprobe, "ffprobe"),
            usable(configured.redline, "REDline"), usable(configured.artCmd, "art-cmd"),
            usable(configured.brawDecoder, "braw-decode")};
}

ExternalTools resolved(const ExternalTools& configured) { return resolved(configured, searchDirs()); }

std::optional<std::string> version(const std::string& path) try {
    constexpr double patience = 10; // seconds
    const std::string said = ToolProcess::run(path, {"-hide_banner", "-version"}, {}, patience);
    // "ffmpeg version 5.1.9 Copyright (c) …"
    const std::string line = said.substr(0, said.find('\n'));
    const std::string_view mark = " version ";
    const std::size_t name = line.find(mark);
    if (name == std::string::npos)
        return std::nullopt;
    const std::size_t number = name + mark.size();
    return fmt::format("{} {} ({})", line.substr(0, name), line.substr(number, line.find(' ', number) - number), path);
} catch (const ToolError&) {
    return std::nullopt;
}

std::string missingText(std::string_view name) {
    return fmt::format("{} not found — install the package ffmpeg, or set tools.{}", name, name);
}

} // namespace velmora::ToolSearch
