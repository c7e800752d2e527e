#include "proxies/ProxyPaths.h"

#include "base/Text.h"
#include "engine/Layout.h"

#include <fmt/format.h>

namespace velmora::ProxyPaths {

namespace {

constexpr std::string_view extension = ".mov";
constexpr std::string_view partMark = ".part";
constexpr std::size_t longestName = 255; // bytes, on every file system of note
constexpr std::size_t longestStem = longestName - partMark.size() - extension.size();

std::string folderOf(std::string_view path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string_view::npos ? "" : std::string(path.substr(0, slash + 1));
}

} // namespace

std::string folder(const std::string& cardPath) { return cardPath + "/" + std::string(Layout::proxyDirName); }

std::string relative(std::string_view name) { return std::string(Layout::proxyDirName).append("/").append(name); }

ProxyTree detect(const std::vector<ClipEntry>& entries) {
    // Only a clip in a folder tells one from the other.
    for (const ClipEntry& entry : entries)
        if (entry.proxyPath && entry.clip.path.find('/') != std::string::npos)
            return entry.proxyPath->find('/', Layout::proxyDirName.size() + 1) == std::string::npos ? ProxyTree::flat
                                                                                                    : ProxyTree::mirror;
    return ProxyTree::mirror;
}

std::string of(const Clip& clip, ProxyTree tree) {
    const std::string folder = tree == ProxyTree::mirror ? folderOf(clip.path) : "";
    const std::string stem(cutUtf8(clip.name.empty() ? "clip" : clip.name, longestStem));
    return folder + stem + std::string(extension);
}

std::string numbered(const std::string& name, int number) {
    if (number == 1)
        return name;
    const std::string folder = folderOf(name);
    const std::string stem = name.substr(folder.size(), name.size() - folder.size() - extension.size());
    const std::string mark = fmt::format("_{}", number);
    return folder + std::string(cutUtf8(stem, longestStem - mark.size())) + mark + std::string(extension);
}

std::string pick(const std::string& name, std::set<std::string>& used,
                 const std::function<bool(const std::string&)>& isFree) {
    for (int number = 1;; ++number) {
        std::string candidate = numbered(name, number);
        if (used.contains(collisionKey(candidate)) || !isFree(candidate))
            continue;
        used.insert(collisionKey(candidate));
        return candidate;
    }
}

std::string part(const std::string& path) {
    return path.substr(0, path.size() - extension.size()) + std::string(partMark) + std::string(extension);
}

} // namespace velmora::ProxyPaths
