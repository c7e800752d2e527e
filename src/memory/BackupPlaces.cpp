#include "memory/BackupPlaces.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "blocks/ManifestFile.h"
#include "disks/VolumeSerial.h"
#include "memory/HistoryRecords.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <utility>

namespace velmora::BackupPlaces {

namespace {

std::string pathOf(const std::string& cardPath) { return pathKey(RelativePath::withoutTrailingSlash(cardPath)); }

// "<date>/<card>": the same on every disk.
std::string tailOf(const std::string& cardPath) {
    const std::string path = RelativePath::withoutTrailingSlash(cardPath);
    return pathKey(std::string(RelativePath::name(RelativePath::folder(path))) + "/" +
                   std::string(RelativePath::name(path)));
}

std::string serialKey(const BackupPlace& place) { return "serial " + *place.volumeSerial; }
std::string pathKeyOf(const BackupPlace& place) { return "path " + pathOf(place.cardPath); }

// What tells a column of a report from other places: its disk, or its path when two columns lie on one disk.
std::pair<std::string, BackupPlace> placeOf(const OffloadReport& report, std::size_t column) {
    const auto& entry = report.destinations.at(column);
    BackupPlace place{entry.cardPath, report.onlyOnItsDisk(column) ? entry.volumeSerial : std::nullopt};
    std::string key = place.volumeSerial ? serialKey(place) : pathKeyOf(place);
    return {std::move(key), std::move(place)};
}

class Places {
public:
    void add(std::string key, BackupPlace place) {
        paths_.insert(pathOf(place.cardPath));
        places_.insert_or_assign(std::move(key), std::move(place)); // the newest path of a disk
    }
    // A serial that several of these places have tells none of them from the others.
    void add(const std::vector<BackupPlace>& known) {
        std::map<std::string, std::set<std::string>> pathsOf;
        for (const BackupPlace& place : known)
            if (place.volumeSerial)
                pathsOf[serialKey(place)].insert(pathOf(place.cardPath));
        for (const BackupPlace& place : known) {
            if (place.volumeSerial && pathsOf[serialKey(place)].size() == 1)
                add(serialKey(place), place);
            else if (!paths_.contains(pathOf(place.cardPath)))
                add(pathKeyOf(place), {place.cardPath, std::nullopt});
        }
    }
    void drop(const std::string& key) { places_.erase(key); }
    std::vector<BackupPlace> take() {
        std::vector<BackupPlace> all;
        for (auto& [key, place] : places_)
            all.push_back(std::move(place));
        return all;
    }

private:
    std::map<std::string, BackupPlace> places_;
    std::set<std::string> paths_;
};

// What one report says of the folders of its backup.
struct Told {
    Timestamp finished;
    std::vector<std::pair<std::string, BackupPlace>> columns;
    std::vector<BackupPlace> elsewhere;

    explicit Told(const OffloadReport& report) : finished(report.finished), elsewhere(report.elsewhere) {
        for (std::size_t i = 0; i < report.destinations.size(); ++i)
            columns.push_back(placeOf(report, i));
    }
};

std::vector<BackupPlace> besideThese(const std::vector<CardRecord>& records, std::vector<Told> told,
                                     const std::vector<BackupPlace>& known) {
    Places places;
    std::vector<BackupPlace> more;
    std::ranges::stable_sort(told, {}, &Told::finished);
    for (Told& report : told) {
        for (auto& [key, place] : report.columns)
            places.add(std::move(key), std::move(place));
        std::ranges::copy(report.elsewhere, std::back_inserter(more));
    }
    std::ranges::copy(known, std::back_inserter(more));
    // Places with a serial first: one that is known by its path alone may be the same.
    std::ranges::stable_partition(more, [](const BackupPlace& place) { return place.volumeSerial.has_value(); });
    places.add(more);
    for (std::size_t d = 0; d < records.size(); ++d) {
        const CardRecord& record = records[d];
        places.drop(pathKeyOf({record.cardPath, std::nullopt}));
        const auto isHere = [&](const BackupPlace& place) {
            return place.volumeSerial == record.volumeSerial && tailOf(place.cardPath) == tailOf(record.cardPath);
        };
        if (record.volumeSerial && std::ranges::any_of(more, isHere))
            places.drop("serial " + *record.volumeSerial);
        for (const auto& generation : record.generations) {
            const OffloadReport& report = *generation.report;
            // A folder that is known by its place alone stands for that of another disk unless all of them are named.
            const bool allNamed = records.size() == report.destinations.size();
            if (const auto at = allNamed ? record.columnOrPlace(report, d) : record.column(report))
                places.drop(placeOf(report, *at).first);
        }
    }
    return places.take();
}

// A folder that cannot be asked tells nothing here; the look at all places in the end denies for it.
bool isThere(const BackupPlace& place) try {
    return IO::isFolder(place.cardPath) &&
           (!place.volumeSerial || VolumeFacts::volumeSerialText(place.cardPath) == place.volumeSerial);
} catch (const IOError&) {
    return false;
}

// One of the group is one of these folders, or one that was found.
bool isOurs(const std::vector<BackupPlace>& group, const std::vector<CardRecord>& records,
            const std::vector<BackupPlace>& found) {
    return std::ranges::any_of(group, [&](const BackupPlace& place) {
        const auto isIt = [&](const auto& other) {
            return HistoryRecords::samePlace(place.cardPath, RelativePath::withoutTrailingSlash(other.cardPath));
        };
        return std::ranges::any_of(records, isIt) || std::ranges::any_of(found, isIt);
    });
}

} // namespace

std::vector<BackupPlace> beside(const std::vector<CardRecord>& records, std::vector<BackupPlace> known,
                                std::vector<std::vector<BackupPlace>> groups) {
    constexpr std::size_t maxRead = 100;
    std::vector<Told> told;
    const auto hear = [&](const CardRecord& record) {
        for (const auto& generation : record.generations)
            told.emplace_back(*generation.report);
    };
    std::ranges::for_each(records, hear);
    std::set<std::string> read;
    while (true) {
        std::vector<BackupPlace> found = besideThese(records, told, known);
        bool more = std::erase_if(groups, [&](const std::vector<BackupPlace>& group) {
                        const bool ours = isOurs(group, records, found);
                        if (ours)
                            std::ranges::copy(group, std::back_inserter(known));
                        return ours;
                    }) > 0;
        for (const BackupPlace& place : found) {
            if (read.size() == maxRead || !isThere(place) || !read.insert(pathOf(place.cardPath)).second)
                continue;
            more = true;
            hear(CardRecord::load(place.cardPath));
            ManifestFile::forEach(place.cardPath, [&](const ManifestRecord& line) {
                std::ranges::copy(line.destinations, std::back_inserter(known));
                return true;
            });
        }
        if (!more)
            return found;
    }
}

} // namespace velmora::BackupPlaces
