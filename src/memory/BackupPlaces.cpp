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

std::string pathKeyOf(const BackupPlace& place) { return "path " + pathOf(place.cardPath); }

// A folder that cannot be asked tells nothing here; the look at all places in the end denies for it.
bool isThere(const BackupPlace& place) try {
    return IO::isFolder(place.cardPath) &&
           (!place.volumeSerial || VolumeFacts::volumeSerialText(place.cardPath) == place.volumeSerial);
} catch (const IOError&) {
    return false;
}

// What tells a place from others: its path as long as it is there, for a disk may hold two folders of one card; else
// its disk, which may be mounted elsewhere by now.
std::string keyOf(const BackupPlace& place) {
    return place.volumeSerial && !isThere(place) ? "serial " + *place.volumeSerial : pathKeyOf(place);
}

// The serial of a disk that two columns lie on tells neither from the other.
std::pair<std::string, BackupPlace> placeOf(const OffloadReport& report, std::size_t column) {
    const auto& entry = report.destinations.at(column);
    BackupPlace place{entry.cardPath, report.onlyOnItsDisk(column) ? entry.volumeSerial : std::nullopt};
    std::string key = keyOf(place);
    return {std::move(key), std::move(place)};
}

class Places {
public:
    void add(std::string key, BackupPlace place) {
        paths_.insert(pathOf(place.cardPath));
        places_.insert_or_assign(std::move(key), std::move(place)); // the newest path of a disk
    }
    // A serial that several of these places share identifies none of them.
    void add(const std::vector<BackupPlace>& known) {
        std::map<std::string, std::set<std::string>> pathsOf;
        for (const BackupPlace& place : known)
            if (place.volumeSerial)
                pathsOf[*place.volumeSerial].insert(pathOf(place.cardPath));
        for (const BackupPlace& place : known) {
            if (place.volumeSerial && (pathsOf[*place.volumeSerial].size() == 1 || isThere(place)))
                add(keyOf(place), place);
            else if (!paths_.contains(pathOf(place.cardPath)))
                add(pathKeyOf(place), {place.cardPath, std::nullopt});
        }
    }
    void drop(const std::string& key) { places_.erase(key); }
    std::vector<BackupPlace> take() {
        std::vector<BackupPlace> all;
        for (const auto& [key, place] : places_)
            if (key == pathKeyOf(place) || !isElsewhere(place))
                all.push_back(place);
        return all;
    }

private:
    // The disk of a place that is not there is mounted under another name.
    bool isElsewhere(const BackupPlace& gone) const {
        return std::ranges::any_of(places_, [&](const auto& entry) {
            const BackupPlace& other = entry.second;
            return entry.first == pathKeyOf(other) && other.volumeSerial == gone.volumeSerial &&
                   tailOf(other.cardPath) == tailOf(gone.cardPath);
        });
    }

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
    for (const CardRecord& record : records) {
        places.drop(pathKeyOf({record.cardPath, std::nullopt}));
        // Known on this disk under another path, where nothing lies now: the folder was moved, or the disk is mounted
        // elsewhere. What lies in it counts by itself.
        for (const BackupPlace& place : more)
            if (place.volumeSerial && place.volumeSerial == record.volumeSerial &&
                tailOf(place.cardPath) == tailOf(record.cardPath) && !isThere(place))
                places.drop(keyOf(place));
        for (const auto& generation : record.generations) {
            const OffloadReport& report = *generation.report;
            if (const auto at = record.column(report))
                places.drop(placeOf(report, *at).first);
        }
    }
    return places.take();
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
                                std::vector<std::vector<BackupPlace>> groups, const FolderStates& folders) {
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
            FolderState& folder = folders.of(place.cardPath);
            hear(CardRecord::load(folder));
            ManifestFile::forEach(place.cardPath, [&](const ManifestRecord& line) {
                folder.stopIfCancelled();
                std::ranges::copy(line.destinations, std::back_inserter(known));
                return true;
            });
        }
        if (!more)
            return found;
    }
}

} // namespace velmora::BackupPlaces
