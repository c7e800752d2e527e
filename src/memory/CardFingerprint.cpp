#include "memory/CardFingerprint.h"

#include "base/Text.h"
#include "blocks/Sha256.h"

#include <fmt/format.h>

#include <algorithm>

namespace velmora::CardFingerprint {

Digests compute(const std::vector<SourceFile>& files) {
    std::vector<const SourceFile*> sorted;
    sorted.reserve(files.size());
    for (const SourceFile& file : files)
        sorted.push_back(&file);
    const auto before = [](const SourceFile* a, const SourceFile* b) {
        return compareUtf16(a->relPath, b->relPath) < 0;
    };
    // A scan comes in the order of the bytes, which is that of UTF-16 but for rare letters.
    if (!std::ranges::is_sorted(sorted, before))
        std::ranges::stable_sort(sorted, before);
    Sha256 fingerprint;
    Sha256 shape;
    std::string line;
    for (const SourceFile* file : sorted) {
        line.clear();
        fmt::format_to(std::back_inserter(line), "{}\t{}", file->relPath, file->size);
        const std::size_t common = line.size();
        line += '\n';
        shape.update(line);
        line.resize(common);
        fmt::format_to(std::back_inserter(line), "\t{}\n", file->ticks());
        fingerprint.update(line);
    }
    return {fingerprint.hex(), shape.hex()};
}

} // namespace velmora::CardFingerprint
