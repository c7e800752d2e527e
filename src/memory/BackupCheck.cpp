#include "memory/BackupCheck.h"

#include "base/FileTimes.h"
#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "disks/VolumeSerial.h"
#include "memory/CaseTwins.h"
#include "platform/IO.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace velmora {

namespace {

// One file of the card on every disk: its status words; none when a disk does not have it as it is on the card.
std::optional<std::vector<std::string_view>> statusesOf(const SourceFile& file, const std::vector<CardRecord>& records,
                                                        bool exactly, bool localTime) {
    std::vector<std::string_view> words;
    for (std::size_t d = 0; d < records.size(); ++d) {
        const CardRecord& record = records[d];
        const RecordedFile* found = record.find(file.relPath, exactly);
        if (!found || found->file->size != file.size || !FileTimes::close(found->file->modified, file.mtime, localTime))
            return std::nullopt;
        const OffloadReport& report = *found->report;
        const std::size_t at = record.columnOrPlace(report, d);
        const auto& statuses = found->file->destinations;
        words.push_back(found->file->sourceError || at >= statuses.size() ? std::string_view("failed")
                                                                          : std::string_view(statuses[at]));
        // A run into some of the disks must not vouch for a card whose copy on another one failed.
        if (std::ranges::find(statuses, "failed") != statuses.end())
            words.back() = "failed";
        // A report whose result does not stand on every disk vouches for nothing.
        if (words.back() == "verified" &&
            (report.verifyIncomplete.value_or(false) || report.verifyPending.value_or(false)))
            words.back() = "written";
    }
    return words;
}

struct Place {
    std::string cardPath;
    std::optional<std::string> serial; // of its volume, where that tells it from all others
};

// What tells a place of the backup from another: its volume, wherever that is mounted today, or else its path.
std::pair<std::string, Place> placeOf(const OffloadReport& report, std::size_t destination) {
    const auto& entry = report.destinations.at(destination);
    if (report.onlyOnItsDisk(destination))
        return {"serial " + *entry.volumeSerial, {entry.cardPath, entry.volumeSerial}};
    return {"path " + pathKey(RelativePath::withoutTrailingSlash(entry.cardPath)), {entry.cardPath, std::nullopt}};
}

// Places that the reports name and that are not among the records.
std::vector<Place> placesElsewhere(const std::vector<CardRecord>& records) {
    std::map<std::string, Place> others;
    const auto each = [&](const CardRecord& record, const auto& visit) {
        for (const auto& generation : record.generations)
            visit(*generation.report);
    };
    for (const CardRecord& record : records)
        each(record, [&](const OffloadReport& report) {
            for (std::size_t i = 0; i < report.destinations.size(); ++i) {
                auto [key, place] = placeOf(report, i);
                others.insert_or_assign(std::move(key), std::move(place)); // the newest path of a volume
            }
        });
    for (std::size_t d = 0; d < records.size(); ++d) {
        others.erase("path " + pathKey(RelativePath::withoutTrailingSlash(records[d].cardPath)));
        each(records[d], [&](const OffloadReport& report) {
            // A folder that is known by its place alone stands for that of another disk unless all of them are named.
            const bool allNamed = records.size() == report.destinations.size();
            const std::optional<std::size_t> at =
                allNamed ? std::optional(records[d].columnOrPlace(report, d)) : records[d].column(report);
            if (at && *at < report.destinations.size())
                others.erase(placeOf(report, *at).first);
        });
    }
    std::vector<Place> places;
    for (auto& [key, place] : others)
        places.push_back(std::move(place));
    return places;
}

// What a folder lacks that nobody named for this run; empty when it lacks nothing.
std::string lackOf(const Place& place, const SourceScan& card, const CaseTwins& twins, bool localTime) {
    const std::string& cardPath = place.cardPath;
    if (!IO::isFolder(cardPath) || (place.serial && VolumeFacts::volumeSerialText(cardPath) != place.serial))
        return BackupMessage::elsewhereUnchecked(cardPath);
    const std::vector<CardRecord> record{CardRecord::load(cardPath)};
    std::int64_t lacking = 0;
    for (const SourceFile& file : card.files) {
        const auto words = statusesOf(file, record, twins.contains(file.relPath), localTime);
        lacking += !words || words->front() != "verified" ? 1 : 0;
    }
    return lacking > 0 ? BackupMessage::elsewhereLacks(cardPath, lacking) : "";
}

std::vector<HistoryGeneration> generationsOf(const CardRecord& record) {
    std::vector<HistoryGeneration> all;
    for (const CardRecord::Generation& generation : record.generations)
        all.push_back(HistoryGeneration::of(*generation.report, generation.generation));
    return all;
}

} // namespace

BackupCheck BackupCheck::of(const SourceScan& card, const std::vector<std::string>& cardPaths, bool localTime) {
    BackupCheck check;
    const std::vector<CardRecord> records =
        sideBySide(cardPaths.size(), [&](std::size_t d) { return CardRecord::load(cardPaths[d]); });
    for (const CardRecord& record : records) {
        if (record.error)
            check.error = record.error;
        else if (!record.problems.empty())
            check.error = record.problems.front();
        else if (record.reportMissing)
            check.error = record.cardPath + " has no report";
        if (check.error)
            return check;
        check.failedFiles = std::max(check.failedFiles, static_cast<std::int64_t>(record.failedFiles().size()));
    }
    if (!records.empty() && !records.front().generations.empty()) {
        check.generations = generationsOf(records.front());
        check.newest = records.front().generations.back().report;
    }
    const CaseTwins twins(card.files);
    for (const SourceFile& file : card.files) {
        const auto words = statusesOf(file, records, twins.contains(file.relPath), localTime);
        if (!words) {
            ++check.notInBackup;
            continue;
        }
        check.covered.push_back(file);
        const BackupState state = BackupState::of(*words);
        check.state.failed += state.failed > 0 ? 1 : 0;
        check.state.unverified += state.failed == 0 && state.unverified > 0 ? 1 : 0;
    }
    for (const Place& place : placesElsewhere(records))
        if (std::string lack = lackOf(place, card, twins, localTime); !lack.empty())
            check.elsewhere.push_back(std::move(lack));
    check.notInBackup += static_cast<std::int64_t>(card.uncopied.size());
    return check;
}

std::vector<std::string> BackupCheck::messages() const {
    if (error)
        return {BackupMessage::unreadable(*error)};
    std::vector<std::string> lines;
    if (state.failed > 0)
        lines.push_back(BackupMessage::failed(state.failed));
    if (notInBackup > 0)
        lines.push_back(BackupMessage::notInBackup(notInBackup));
    if (state.unverified > 0)
        lines.push_back(BackupMessage::unverified(state.unverified));
    lines.insert(lines.end(), elsewhere.begin(), elsewhere.end());
    return lines;
}

} // namespace velmora
