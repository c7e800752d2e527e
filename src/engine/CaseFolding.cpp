#include "engine/CaseFolding.h"

#include "base/Text.h"
#include "records/SourceFile.h"

#include <algorithm>
#include <functional>
#include <span>

namespace velmora {

namespace {

struct HashedKey {
    std::size_t hash;
    std::size_t file;
    auto operator<=>(const HashedKey&) const = default;
};

// The files of one hash, in order: nearly always one, else two that do collide.
void collisionsWithin(std::span<const HashedKey> group, const std::vector<SourceFile>& files,
                      std::vector<CaseFolding::Collision>& found) {
    for (std::size_t later = 1; later < group.size(); ++later) {
        const std::string key = collisionKey(files[group[later].file].relPath);
        for (std::size_t earlier = 0; earlier < later; ++earlier) {
            if (collisionKey(files[group[earlier].file].relPath) == key) {
                found.push_back({group[later].file, group[earlier].file});
                break;
            }
        }
    }
}

} // namespace

std::vector<CaseFolding::Collision> CaseFolding::collisions(const std::vector<SourceFile>& files) {
    std::vector<HashedKey> keys;
    keys.reserve(files.size());
    for (std::size_t file = 0; file < files.size(); ++file)
        keys.push_back({std::hash<std::string>{}(collisionKey(files[file].relPath)), file});
    std::ranges::sort(keys);

    std::vector<Collision> found;
    for (std::size_t begin = 0; begin < keys.size();) {
        std::size_t end = begin + 1;
        while (end < keys.size() && keys[end].hash == keys[begin].hash)
            ++end;
        collisionsWithin(std::span(keys).subspan(begin, end - begin), files, found);
        begin = end;
    }
    std::ranges::sort(found, {}, &Collision::file);
    return found;
}

std::string CaseFolding::error(std::string_view firstPath) {
    return "not copied: this disk does not tell the name from " + std::string(firstPath);
}

} // namespace velmora
