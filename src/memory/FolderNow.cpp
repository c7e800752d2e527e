#include "memory/FolderNow.h"

#include "base/FileTimes.h"
#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "blocks/ManifestFile.h"
#include "disks/VolumeSerial.h"
#include "memory/AppendPlanner.h"
#include "memory/BackupFolder.h"
#include "memory/CardRecord.h"
#include "memory/CaseTwins.h"
#include "memory/HistoryRecords.h"
#include "memory/ResumePlanner.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <unordered_map>
#include <unordered_set>

namespace velmora {

void FolderNow::Files::add(std::string_view path) {
    if (count++ == 0 || path < first)
        first = path;
}

std::string FolderNow::problem() const {
    const auto some = [](const Files& files) {
        return files.count == 1 ? files.first : fmt::format("{} ({} …)", countedFiles(files.count), files.first);
    };
    if (state == State::away && !failedVerification)
        return forgottenProblem();
    if (state == State::gone)
        return cardPath + " is not there any more";
    if (state == State::unreadable)
        return fmt::format("{} cannot be read ({})", cardPath, error);
    if (lost.count > 0)
        return fmt::format("{} was not copied to {} and is no longer on the card", some(lost), cardPath);
    if (damaged.count > 0)
        return fmt::format("{} in {} {} missing or changed", some(damaged), cardPath,
                           plural(damaged.count, "is", "are"));
    if (failedVerification)
        return fmt::format("the verification of {} on {} found {}", cardPath,
                           TimeText::local(*failedVerification->failed, "%Y-%m-%d %H:%M"), failedVerification->found);
    if (failed.count > 0)
        return fmt::format("{} was not copied correctly to {}", some(failed), cardPath);
    if (neverCame.count > 0)
        return fmt::format("{} was not copied to {}", some(neverCame), cardPath);
    if (lacking.count > 0)
        return fmt::format("{} does not hold {} of the card", cardPath, some(lacking));
    return repairOpen ? "a repair of " + cardPath + " was not finished" : forgottenProblem();
}

std::string FolderNow::forgottenProblem() const {
    return forgotten.empty() ? "" : fmt::format("{}, and {} was not read since", forgotten, cardPath);
}

namespace FoldersNow {

namespace {

// One folder, and the record that was read there.
struct Look {
    FolderNow now;
    CardRecord* record; // never null
};

// The card's files by path key, shared by all folders.
struct CardIndex {
    const Card& card;
    std::unordered_set<std::string> keys;
    std::unordered_set<std::string_view> names;
    std::unordered_set<std::string_view> newNames;

    explicit CardIndex(const Card& onCard) : card(onCard) {
        for (const SourceFile& file : card.newFiles)
            newNames.insert(file.relPath);
        for (const SourceFile& file : card.files) {
            keys.insert(pathKey(file.relPath));
            names.insert(file.relPath);
        }
    }
    bool holds(const std::string& path, const CaseTwins& twins) const {
        return twins.contains(path) ? names.contains(path) : keys.contains(pathKey(path));
    }
};

std::string_view statusOf(const CardRecord& record, const RecordedFile& recorded) {
    const OffloadReport& report = *recorded.report;
    const std::string_view word = record.statusOf(recorded);
    const bool open = report.verifyIncomplete.value_or(false) || report.verifyPending.value_or(false);
    return word == "verified" && open ? "written" : word;
}

void judgeFile(FolderNow& now, const CardRecord& record, const RecordedFile& recorded, const BackupFolder& disk,
               const CardIndex& card, const CaseTwins& twins, bool localTime) {
    const OffloadReport::FileEntry& file = *recorded.file;
    const std::string_view status = statusOf(record, recorded);
    const bool never = (file.sourceError && !file.xxh64) || status == "pending";
    if (never || file.sourceError || (status != "written" && status != "verified")) {
        FolderNow::Files& kind = !card.holds(file.path, twins) ? now.lost : never ? now.neverCame : now.failed;
        kind.add(file.path);
        return;
    }
    const SourceFile* copy = disk.file(file.path, twins.contains(file.path));
    // Every copy was given the time of the card's file: one with another time was touched since.
    if (!copy || copy->size != file.size || !FileTimes::close(copy->mtime, file.modified, localTime))
        now.damaged.add(file.path);
    else if (status == "written")
        now.unverified.add(file.path);
}

void judgeFiles(Look& look, const BackupFolder& disk, const CardIndex& card, bool localTime) {
    const CardRecord& record = *look.record;
    const CaseTwins twins(card.card.files, std::span(&record, 1));
    for (const auto& [key, recorded] : record.files)
        judgeFile(look.now, record, recorded, disk, card, twins, localTime);
    // Two names in one report are two files; in two reports the later may be the same file under another case.
    for (const auto& [path, recorded] : record.twins)
        if (record.files.at(pathKey(path)).report == recorded.report)
            judgeFile(look.now, record, recorded, disk, card, twins, localTime);
    for (const SourceFile& file : card.card.files) {
        if (card.newNames.contains(file.relPath))
            continue;
        const RecordedFile* found = record.find(file.relPath, twins.contains(file.relPath));
        if (!found || found->file->size != file.size || !FileTimes::close(found->file->modified, file.mtime, localTime))
            look.now.lacking.add(file.relPath);
    }
}

void unreadable(FolderNow& now, const std::string& error) {
    now.state = FolderNow::State::unreadable;
    now.error = error;
}

// Whether the folder is there; true when it can be read.
bool isThere(FolderNow& now) {
    try {
        if (IO::stat(now.cardPath).isFolder)
            return true;
        now.state = FolderNow::State::gone;
    } catch (const IOError& e) {
        if (e.code() != ENOENT && e.code() != ENOTDIR)
            unreadable(now, e.what());
        else
            now.state = FolderNow::State::gone;
    }
    return false;
}

// A repair that died before it wrote a report: the lines of the manifest alone tell of it.
bool diedInRepair(const CardRecord& record, FolderState& folder, const FolderStates& folders) {
    const std::string& cardPath = folder.cardPath();
    bool anyOpen = false;
    ManifestFile::forEach(cardPath, [&](const ManifestRecord& line) {
        folder.stopIfCancelled();
        anyOpen = line.gen > folder.committed();
        return !anyOpen;
    });
    if (!anyOpen)
        return false;
    try {
        const std::optional<Unfinished> open = ResumePlanner::find({cardPath}, folders);
        return open && AppendPlanner::isOpenRepair(*open, {record});
    } catch (const OffloadError&) { // the run that finishes it will say what is wrong
        return false;
    } catch (const IOError&) {
        return false;
    }
}

void lookInto(Look& look, const HistoryEntry& entry, const CardIndex& card, const FolderStates& folders) {
    FolderNow& now = look.now;
    FolderState& folder = folders.of(now.cardPath);
    *look.record = CardRecord::load(folder);
    const CardRecord& record = *look.record;
    if (!record.generations.empty()) {
        const OffloadReport& newest = *record.generations.back().report;
        now.repairOpen =
            newest.isRepair() && (newest.verifyIncomplete.value_or(false) || newest.verifyPending.value_or(false));
    }
    try {
        now.generation = folder.committed();
    } catch (const OffloadError& e) {
        return unreadable(now, e.what());
    }
    // The history may know nothing of the repair: another computer may have begun it.
    now.repairOpen = now.repairOpen || diedInRepair(record, folder, folders);
    if (entry.unfinished) // the run that finishes it will find what is missing
        return;
    if (record.error)
        return unreadable(now, *record.error);
    if (!record.problems.empty())
        return unreadable(now, record.problems.front());
    if (record.reportMissing)
        return unreadable(now, "it has no report");
    // No append, repair or verification goes on without it.
    if (!record.generations.empty() && now.generation < record.generations.back().generation)
        return unreadable(now, "its ASC MHL history is lost");
    const std::string onDisk = IO::filesystemType(now.cardPath);
    const bool localTime =
        FileTimes::storesLocalTime(card.card.filesystem.value_or("")) || FileTimes::storesLocalTime(onDisk);
    try {
        judgeFiles(look, BackupFolder(now.cardPath, folder.isCancelled()), card, localTime);
    } catch (const OffloadError& e) {
        unreadable(now, e.what());
    } catch (const IOError& e) {
        unreadable(now, e.what());
    }
}

// Another disk stands where the folder's disk was: a report of the same backup says which serial that had, or the
// history, which remembers the disk that a verification read.
bool onAnotherDisk(const std::string& cardPath, const std::vector<Look>& looks, const Remembered& history) {
    std::string there = cardPath;
    while (there.size() > 1 && IO::isGone(there))
        there = RelativePath::folder(there);
    const auto serial = VolumeFacts::volumeSerialText(there.empty() ? "/" : there);
    for (const Look& look : looks)
        for (const auto& generation : look.record->generations)
            for (const auto& destination : generation.report->destinations)
                if (HistoryRecords::samePlace(destination.cardPath, cardPath) && destination.volumeSerial)
                    return serial != destination.volumeSerial;
    const auto wasRead = [&](const HistoryVerification& each) {
        return each.volumeSerial && HistoryRecords::samePlace(each.cardPath, cardPath);
    };
    std::vector<const std::vector<HistoryVerification>*> lists{&history.verifications};
    for (const HistoryEntry& entry : history.entries)
        lists.push_back(&entry.verifications);
    for (const auto* list : lists)
        if (const auto found = std::ranges::find_if(*list, wasRead); found != list->end())
            return serial != found->volumeSerial;
    return false;
}

std::vector<BackupPlace> placesBeside(const std::vector<CardRecord>& records, const std::vector<std::string>& cardPaths,
                                      const Remembered& history, const FolderStates& folders) {
    auto places = AppendPlanner::elsewhere(records, {}, AppendPlanner::pastRuns(history.entries, cardPaths), folders);
    std::erase_if(places, [&](const BackupPlace& place) { // a disk that is away, or mounted under another name
        return std::ranges::any_of(cardPaths,
                                   [&](const auto& path) { return HistoryRecords::samePlace(path, place.cardPath); });
    });
    return places;
}

} // namespace

std::vector<FolderNow> look(const HistoryEntry& entry, const Remembered& history, const Card& card,
                            const std::function<bool(const std::string&)>& isAway, const IsCancelled& isCancelled) {
    std::vector<std::string> cardPaths;
    for (const HistoryDestination& destination : entry.destinations)
        cardPaths.push_back(destination.cardPath);
    std::vector<CardRecord> records(cardPaths.size());
    std::vector<CardRecord> besideRecords;
    std::vector<Look> looks;
    bool anyThere = false;
    for (std::size_t d = 0; d < cardPaths.size(); ++d) {
        records[d].cardPath = cardPaths[d];
        FolderNow& now = looks.emplace_back(FolderNow{}, &records[d]).now;
        now.cardPath = cardPaths[d];
        if (isAway(now.cardPath))
            now.state = FolderNow::State::away;
        else
            anyThere = isThere(now) || anyThere;
    }
    if (anyThere) {
        const CardIndex index(card);
        const FolderStates states(isCancelled);
        const auto lookFrom = [&](std::size_t first) {
            sideBySide(looks.size() - first, [&](std::size_t d) {
                if (looks[first + d].now.state == FolderNow::State::connected)
                    lookInto(looks[first + d], entry, index, states);
                return true;
            });
        };
        lookFrom(0);
        const std::vector<BackupPlace> places = placesBeside(records, cardPaths, history, states);
        besideRecords.resize(places.size());
        for (std::size_t p = 0; p < places.size(); ++p) {
            FolderNow& now = looks.emplace_back(FolderNow{}, &besideRecords[p]).now;
            now.cardPath = places[p].cardPath;
            now.besides = true;
            const auto& serial = places[p].volumeSerial;
            if (isAway(now.cardPath) ||
                (isThere(now) && serial && VolumeFacts::volumeSerialText(now.cardPath) != serial))
                now.state = FolderNow::State::away;
        }
        lookFrom(cardPaths.size());
    }
    // The oldest of its copies are as old as its first run.
    std::optional<Timestamp> copied;
    for (const HistoryGeneration& generation : entry.generations)
        copied = std::min(copied.value_or(generation.finished), generation.finished);
    std::vector<FolderNow> folders;
    for (const Look& each : looks) {
        FolderNow& now = folders.emplace_back(each.now);
        if (now.state == FolderNow::State::gone && onAnotherDisk(now.cardPath, looks, history))
            now.state = FolderNow::State::away;
        const auto known = history.verificationOf(now.cardPath, each.record->volumeSerial);
        now.lastKnown = known && known->clean ? std::max(*known->clean, entry.finished) : entry.finished;
        if (known && known->failed)
            now.failedVerification = known;
        if (const HistoryGap* gap = history.hides(std::max(copied, known ? known->clean : std::nullopt)))
            now.forgotten = gap->text();
    }
    return folders;
}

} // namespace FoldersNow

} // namespace velmora
