#include "memory/HistoryMatcher.h"

#include "base/FileTimes.h"

#include <string_view>
#include <unordered_map>

namespace velmora::HistoryMatcher {

HistoryMatch match(const std::vector<SourceFile>& scan, const std::string& fingerprint, const HistoryEntry& candidate,
                   const std::optional<std::vector<SourceFile>>& candidateFiles,
                   const std::optional<std::string>& filesystem) {
    HistoryMatch result;
    result.entry = candidate;
    if (candidate.fingerprint == fingerprint) {
        result.kind = HistoryMatchKind::identical;
        return result;
    }
    if (!candidateFiles)
        return result;
    const bool localTime = filesystem && FileTimes::storesLocalTime(*filesystem);
    std::unordered_map<std::string_view, const SourceFile*> left;
    left.reserve(candidateFiles->size());
    for (const SourceFile& file : *candidateFiles)
        left[file.relPath] = &file;
    const std::size_t recorded = left.size();
    for (const SourceFile& file : scan) {
        const auto known = left.find(file.relPath);
        if (known == left.end()) {
            result.newFiles.push_back(file);
            continue;
        }
        const SourceFile& before = *known->second;
        left.erase(known);
        if (before.size != file.size || !FileTimes::same(before.ticks(), file.ticks(), localTime))
            result.changed.push_back(file.relPath);
    }
    result.removed = static_cast<std::int64_t>(left.size());
    if (recorded > 0 && left.size() == recorded && !result.newFiles.empty()) {
        // The same medium without any of the old files: it was formatted and used again.
        for (const SourceFile& file : result.newFiles)
            result.changed.push_back(file.relPath);
        result.newFiles.clear();
    }
    for (const SourceFile& file : result.newFiles)
        result.newBytes += file.size;
    result.kind = !result.changed.empty()    ? HistoryMatchKind::changed
                  : !result.newFiles.empty() ? HistoryMatchKind::newFiles
                                             : HistoryMatchKind::identical;
    return result;
}

} // namespace velmora::HistoryMatcher
