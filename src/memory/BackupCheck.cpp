#include "memory/BackupCheck.h"

#include "base/FileTimes.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "disks/VolumeSerial.h"
#include "memory/BackupFolder.h"
#include "memory/CaseTwins.h"
#include "platform/IO.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <unordered_set>

namespace velmora {

namespace {

bool isAsRecorded(const SourceFile& file, const RecordedFile& found, bool localTime) {
    return found.file->size == file.size && FileTimes::close(found.file->modified, file.mtime, localTime);
}

using OnDisks = std::vector<const RecordedFile*>; // of one file of the card, per folder; null where no record names it

OnDisks findOn(const std::vector<CardRecord>& records, const SourceFile& file, bool exactly) {
    OnDisks found;
    found.reserve(records.size());
    for (const CardRecord& record : records)
        found.push_back(record.find(file.relPath, exactly));
    return found;
}

// One file of the card on every disk: its status words; none when a disk does not have it as it is on the card.
std::optional<std::vector<std::string_view>> statusesOf(const SourceFile& file, const std::vector<CardRecord>& records,
                                                        const OnDisks& onDisks, bool localTime) {
    std::vector<std::string_view> words;
    words.reserve(records.size());
    for (std::size_t d = 0; d < records.size(); ++d) {
        const RecordedFile* found = onDisks[d];
        if (!found || !isAsRecorded(file, *found, localTime))
            return std::nullopt;
        words.push_back(found->file->sourceError ? std::string_view("failed") : records[d].statusOf(*found));
        // A run into some of the disks must not vouch for a card whose copy on another one failed.
        const auto& statuses = found->file->destinations;
        if (std::ranges::find(statuses, "failed") != statuses.end())
            words.back() = "failed";
        // A report whose result does not stand on every disk vouches for nothing.
        const OffloadReport& report = *found->report;
        if (words.back() == "verified" &&
            (report.verifyIncomplete.value_or(false) || report.verifyPending.value_or(false)))
            words.back() = "written";
    }
    return words;
}

// Some disk holds an earlier state of the file, which no append and no repair replaces.
bool changedSince(const SourceFile& file, const OnDisks& onDisks, bool localTime) {
    return std::ranges::any_of(onDisks, [&](const RecordedFile* found) {
        return found && (found->file->xxh64 || !found->file->sourceError) && !isAsRecorded(file, *found, localTime);
    });
}

struct Lack {
    std::string text; // empty: none
    std::optional<Timestamp> lastRead = {};
};

// What a folder lacks that nobody named for this run, by its records and by what lies there.
Lack lackOf(const BackupPlace& place, const SourceScan& card, bool localTime, FolderState& state) try {
    const std::string& cardPath = place.cardPath;
    if (!IO::isFolder(cardPath) ||
        (place.volumeSerial && VolumeFacts::volumeSerialText(cardPath) != place.volumeSerial))
        return {BackupMessage::elsewhereUnchecked(cardPath)};
    const std::vector<CardRecord> record{CardRecord::load(state)};
    const CaseTwins twins(card.files, record);
    const BackupFolder folder(cardPath, state.isCancelled());
    std::int64_t lacking = 0;
    std::optional<Timestamp> lastRead;
    for (const SourceFile& file : card.files) {
        const bool exactly = twins.contains(file.relPath);
        const auto onDisks = findOn(record, file, exactly);
        const auto words = statusesOf(file, record, onDisks, localTime);
        const SourceFile* copy = folder.file(file.relPath, exactly);
        const bool stands = copy && copy->size == file.size && FileTimes::close(copy->mtime, file.mtime, localTime);
        lacking += !words || words->front() != "verified" || !stands ? 1 : 0;
        if (const RecordedFile* found = onDisks.front())
            lastRead = std::min(lastRead.value_or(found->report->finished), found->report->finished);
    }
    if (record.front().error || !record.front().problems.empty())
        lacking = std::max<std::int64_t>(lacking, 1);
    return {lacking > 0 ? BackupMessage::elsewhereLacks(cardPath, lacking) : "", lastRead};
} catch (const IOError&) {
    return {BackupMessage::elsewhereUnchecked(place.cardPath)};
}

std::vector<HistoryGeneration> generationsOf(const CardRecord& record) {
    std::vector<HistoryGeneration> all;
    for (const CardRecord::Generation& generation : record.generations)
        all.push_back(HistoryGeneration::of(*generation.report, generation.generation));
    return all;
}

std::optional<std::string> problemOf(const CardRecord& record) {
    if (record.error)
        return record.cardPath + ": " + *record.error;
    if (!record.problems.empty())
        return record.cardPath + ": " + record.problems.front();
    if (record.reportMissing)
        return record.cardPath + " has no report";
    return std::nullopt;
}

// Nobody has these: the run that recorded them failed, and the card does not show them any more.
std::vector<std::string> lostFiles(const std::set<std::string>& failed, const SourceScan& card,
                                   const CaseTwins& twins) {
    std::vector<std::string> lost;
    if (failed.empty())
        return lost;
    std::unordered_set<std::string> onCard;
    for (const SourceFile& file : card.files)
        onCard.insert(twins.nameOf(file.relPath));
    for (const UncopiedItem& item : card.uncopied)
        onCard.insert(twins.nameOf(item.shown));
    for (const std::string& path : failed)
        if (!onCard.contains(twins.nameOf(path)))
            lost.push_back(path);
    return lost;
}

} // namespace

BackupCheck BackupCheck::of(const SourceScan& card, const std::vector<CardRecord>& records,
                            const std::vector<BackupPlace>& places, std::optional<std::int64_t> generation,
                            bool localTime, const FolderStates& folders) {
    BackupCheck check;
    std::set<std::string> failed;
    for (const CardRecord& record : records) {
        check.error = problemOf(record);
        if (check.error)
            return check;
        const auto ofRecord = record.failedFiles();
        check.failedFiles = std::max(check.failedFiles, static_cast<std::int64_t>(ofRecord.size()));
        failed.insert(ofRecord.begin(), ofRecord.end());
    }
    if (!records.empty() && !records.front().generations.empty()) {
        check.generations = generationsOf(records.front());
        check.newest = records.front().generations.back().report;
    }
    const CaseTwins twins(card.files, records);
    check.lost = lostFiles(failed, card, twins);
    for (const SourceFile& file : card.files) {
        const bool exactly = twins.contains(file.relPath);
        const auto onDisks = findOn(records, file, exactly);
        const auto words = statusesOf(file, records, onDisks, localTime);
        if (!words) {
            if (changedSince(file, onDisks, localTime))
                check.changed.push_back(file.relPath);
            else
                ++check.notInBackup;
            continue;
        }
        check.covered.push_back(file);
        const BackupState state = BackupState::of(*words);
        check.state.failed += state.failed > 0 ? 1 : 0;
        check.state.unverified += state.failed == 0 && state.unverified > 0 ? 1 : 0;
        // A disk that was brought in step has copies that were read later than those of the others.
        for (const RecordedFile* found : onDisks) {
            const Timestamp read = found->report->finished;
            check.lastRead = std::min(check.lastRead.value_or(read), read);
        }
        if (!records.empty())
            check.ofEarlierRuns += onDisks.front()->generation != generation ? 1 : 0;
    }
    const auto lacks = sideBySide(places.size(), [&](std::size_t p) {
        return lackOf(places[p], card, localTime, folders.of(places[p].cardPath));
    });
    for (std::size_t p = 0; p < places.size(); ++p) {
        if (!lacks[p].text.empty()) {
            check.elsewhere.push_back(lacks[p].text);
            continue;
        }
        check.alsoRead = check.alsoIn.empty() ? lacks[p].lastRead : std::min(check.alsoRead, lacks[p].lastRead);
        check.alsoIn.push_back(places[p].cardPath);
    }
    check.notInBackup += static_cast<std::int64_t>(card.uncopied.size());
    return check;
}

} // namespace velmora
