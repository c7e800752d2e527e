#include "memory/CaseTwins.h"

#include "base/Text.h"

namespace velmora {

CaseTwins::CaseTwins(const std::vector<SourceFile>& files, std::span<const CardRecord> records) {
    std::unordered_set<std::string> seen;
    seen.reserve(files.size());
    for (const SourceFile& file : files)
        if (auto [key, isNew] = seen.insert(pathKey(file.relPath)); !isNew)
            keys_.insert(*key);
    for (const CardRecord& record : records)
        for (const auto& [path, recorded] : record.twins)
            keys_.insert(pathKey(path));
}

bool CaseTwins::contains(std::string_view relPath) const { return !keys_.empty() && keys_.contains(pathKey(relPath)); }

std::string CaseTwins::nameOf(std::string_view relPath) const {
    std::string key = pathKey(relPath);
    return keys_.contains(key) ? std::string(relPath) : key;
}

} // namespace velmora
