#include "memory/Unfinished.h"

#include "base/FileTimes.h"
#include "base/Text.h"

#include <algorithm>

namespace velmora {

namespace {

template <class Record>
const Record* agreeing(const std::map<std::string, Record>& records, const SourceFile& file, bool localTime) {
    const auto found = records.find(pathKey(file.relPath));
    // Byte for byte: a name that differs in case only may be another file of the card.
    if (found == records.end() || found->second.path != file.relPath || found->second.size != file.size ||
        !FileTimes::close(found->second.modified, file.mtime, localTime))
        return nullptr;
    return &found->second;
}

} // namespace

const ManifestRecord* Unfinished::fileOf(std::size_t dest, const SourceFile& file, bool localTime) const {
    return agreeing(files[dest], file, localTime);
}

const PartCheckpoint* Unfinished::partOf(std::size_t dest, const SourceFile& file, bool localTime) const {
    return agreeing(parts[dest], file, localTime);
}

bool Unfinished::mentions(const std::string& relPath) const {
    const std::string key = pathKey(relPath);
    const auto in = [&](const auto& maps) {
        return std::any_of(maps.begin(), maps.end(), [&](const auto& map) { return map.contains(key); });
    };
    return in(files) || in(parts) || (fixedFiles && fixedFiles->contains(key));
}

std::shared_ptr<const OffloadReport> Unfinished::result() const {
    if (!report || !report->verifyIncomplete.value_or(false) || report->verifyPending.value_or(false))
        return nullptr;
    const auto unflushed = [](const auto& destination) { return !destination.flushed.value_or(true); };
    return std::ranges::any_of(report->destinations, unflushed) ? nullptr : report;
}

bool Unfinished::holdsAnything() const {
    const auto any = [](const auto& map) { return !map.empty(); };
    return report || std::ranges::any_of(files, any) || std::ranges::any_of(parts, any);
}

std::unordered_set<std::string> Unfinished::mentioned() const {
    std::unordered_set<std::string> keys;
    const auto add = [&](const auto& maps) {
        for (const auto& map : maps)
            for (const auto& [key, record] : map)
                keys.insert(key);
    };
    add(files);
    add(parts);
    return keys;
}

} // namespace velmora
