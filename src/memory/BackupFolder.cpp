#include "memory/BackupFolder.h"

#include "base/Text.h"
#include "engine/Layout.h"
#include "engine/Scanner.h"

#include <algorithm>

namespace velmora {

namespace {

bool isOurs(std::string_view relPath) {
    const std::string_view top = relPath.substr(0, relPath.find('/'));
    return top == Layout::reportDirName || top == Layout::proxyDirName || top == Layout::mhlDirName;
}

} // namespace

BackupFolder::BackupFolder(const std::string& cardPath, const IsCancelled& isCancelled)
    : scan_(Scanner::scan(cardPath, isCancelled)) {
    std::erase_if(scan_.files, [](const SourceFile& file) { return isOurs(file.relPath); });
    std::erase_if(scan_.dirs, [](const std::string& dir) { return isOurs(dir); });
    for (const auto& entry : scan_.uncopied)
        unrecordable_.push_back(entry.shown);
    byKey_.reserve(scan_.files.size());
    for (std::size_t i = 0; i < scan_.files.size(); ++i)
        byKey_.emplace(pathKey(scan_.files[i].relPath), i);
}

const SourceFile* BackupFolder::file(std::string_view relPath, bool exactly) const {
    const SourceFile* other = nullptr;
    const auto [begin, end] = byKey_.equal_range(pathKey(relPath));
    for (auto entry = begin; entry != end; ++entry) {
        const SourceFile& file = scan_.files[entry->second];
        if (file.relPath == relPath)
            return &file;
        other = &file;
    }
    return exactly ? nullptr : other;
}

bool BackupFolder::hasFolder(std::string_view relPath) const {
    return std::binary_search(scan_.dirs.begin(), scan_.dirs.end(), relPath);
}

} // namespace velmora
