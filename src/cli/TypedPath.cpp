#include "cli/TypedPath.h"

#include <algorithm>
#include <filesystem>

namespace velmora::TypedPath {

std::string absolute(const std::string& typed) {
    if (typed.empty())
        return typed;
    std::filesystem::path path = std::filesystem::absolute(typed);
    std::error_code failed; // ".." behind a link leads elsewhere than its text says
    if (std::ranges::find(path, "..") != path.end())
        if (const auto real = std::filesystem::weakly_canonical(path, failed); !failed)
            path = real;
    auto text = path.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

std::vector<std::string> absolute(const std::vector<std::string>& typed) {
    std::vector<std::string> paths;
    paths.reserve(typed.size());
    for (const std::string& path : typed)
        paths.push_back(absolute(path));
    return paths;
}

} // namespace velmora::TypedPath
