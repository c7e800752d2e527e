#include "clips/ClipDetector.h"

#include "base/Text.h"

#include <algorithm>
#include <array>
#include <map>
#include <string>

namespace velmora::ClipDetector {

namespace {

constexpr std::array<std::string_view, 8> videoExtensions = {"mov", "mp4", "m4v", "mxf", "mts", "m2ts", "avi", "mkv"};

struct Name {
    std::string_view folder; // without the trailing "/", empty for the card root
    std::string_view stem;
    std::string extension; // lower case, without the dot
};

Name split(std::string_view path) {
    Name name;
    const std::size_t slash = path.rfind('/');
    std::string_view file = path;
    if (slash != std::string_view::npos) {
        name.folder = path.substr(0, slash);
        file = path.substr(slash + 1);
    }
    const std::size_t dot = file.rfind('.');
    // A leading dot hides a file; it does not begin an extension.
    if (dot == std::string_view::npos || dot == 0) {
        name.stem = file;
        return name;
    }
    name.stem = file.substr(0, dot);
    name.extension = toLower(file.substr(dot + 1));
    return name;
}

std::string_view lastComponent(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// "A001_C002_0101AB_001" becomes "A001_C002_0101AB"; four digits are no segment number.
std::string_view withoutSegmentNumber(std::string_view stem) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (stem.size() < 4 || stem[stem.size() - 4] != '_' || !std::all_of(stem.end() - 3, stem.end(), isDigit))
        return stem;
    return stem.substr(0, stem.size() - 4);
}

Clip oneFile(const SourceFile& file, std::string_view stem, ClipFormat format) {
    Clip clip;
    clip.name = stem;
    clip.path = file.relPath;
    clip.format = format;
    clip.segments.push_back(file.relPath);
    clip.bytes = file.size;
    return clip;
}

using Group = std::vector<const SourceFile*>;

Clip joined(std::string_view key, Group group, ClipFormat format) {
    std::sort(group.begin(), group.end(),
              [](const SourceFile* a, const SourceFile* b) { return a->relPath < b->relPath; });
    Clip clip;
    clip.name = lastComponent(key);
    clip.path = format == ClipFormat::arriraw ? std::string(key) : group.front()->relPath;
    clip.format = format;
    clip.segments.reserve(group.size());
    for (const SourceFile* file : group) {
        clip.segments.push_back(file->relPath);
        clip.bytes += file->size;
    }
    return clip;
}

} // namespace

bool isCameraProxy(std::string_view path) {
    std::size_t start = 0;
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', start)) {
        const std::string folder = toLower(path.substr(start, slash - start));
        if (folder == "sub" || folder == "proxy")
            return true;
        start = slash + 1;
    }
    return false;
}

std::vector<Clip> detect(const std::vector<SourceFile>& files) {
    std::vector<Clip> clips;
    clips.reserve(files.size());
    std::string_view lastFolder;
    bool inProxyFolder = false;
    std::map<std::string, Group> red;
    std::map<std::string, Group> arri;
    for (const SourceFile& file : files) {
        if (file.relPath.starts_with("_REPORT/") || file.relPath.starts_with("_PROXY/"))
            continue;
        const Name name = split(file.relPath);
        if (name.extension == "r3d") {
            red[std::string(name.folder) + "/" + std::string(withoutSegmentNumber(name.stem))].push_back(&file);
        } else if (name.extension == "ari") {
            arri[std::string(name.folder)].push_back(&file);
        } else if (name.extension == "braw") {
            clips.push_back(oneFile(file, name.stem, ClipFormat::braw));
        } else if (name.extension == "crm") {
            clips.push_back(oneFile(file, name.stem, ClipFormat::canonRaw));
        } else if (file.size > 0 && std::ranges::find(videoExtensions, name.extension) != videoExtensions.end()) {
            Clip clip = oneFile(file, name.stem, ClipFormat::video);
            if (name.folder != lastFolder) {
                lastFolder = name.folder;
                inProxyFolder = isCameraProxy(file.relPath);
            }
            clip.isCameraProxy = inProxyFolder;
            clips.push_back(std::move(clip));
        }
    }
    for (const auto& [key, group] : red)
        clips.push_back(joined(key, group, ClipFormat::r3d));
    for (const auto& [key, group] : arri)
        clips.push_back(joined(key, group, ClipFormat::arriraw));
    const auto before = [](const Clip& a, const Clip& b) { return compareNatural(a.path, b.path) < 0; };
    if (!std::ranges::is_sorted(clips, before)) // cameras number their clips with leading zeros: mostly it is
        std::ranges::stable_sort(clips, before);
    return clips;
}

} // namespace velmora::ClipDetector
