#include "memory/AppendPlanner.h"

#include "base/FileTimes.h"
#include "base/Msg.h"
#include "base/Product.h"
#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "base/StopIf.h"
#include "base/Text.h"
#include "disks/Volumes.h"
#include "engine/DestWriter.h"
#include "engine/DeviceFlush.h"
#include "engine/Layout.h"
#include "engine/Scanner.h"
#include "memory/BackupFolder.h"
#include "memory/BackupPlaces.h"
#include "memory/CaseTwins.h"
#include "memory/HistoryRecords.h"
#include "memory/HistoryText.h"
#include "memory/ResumePlanner.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace velmora::AppendPlanner {

namespace {

OffloadError refuse(PreflightCode code, const std::string& text) { return OffloadError::preflight(code, text); }

std::string exactBytes(std::int64_t bytes) { return counted(bytes, "byte", "bytes"); }

// One run of the planner: what it has read, and what it finds.
class Planning {
public:
    Planning(const Ask& ask, Backup backup, const ResumePlanner::Findings& found, bool localTime,
             const FolderStates& folders)
        : ask_(ask), backup_(std::move(backup)), unfinished_(found.unfinished), localTime_(localTime),
          isCancelled_(folders.isCancelled()), card_(Scanner::scan(ask.source, isCancelled_)),
          twins_(card_.files, backup_.records) {
        folders_ = sideBySide(backup_.paths.size(),
                              [&](std::size_t d) { return BackupFolder(backup_.paths[d], isCancelled_); });
        plan_.source = ask.source;
        plan_.sourceMedium = ask.medium;
        plan_.sameMedium = sameMedium(backup_.records, found, ask.medium, ask.mediumInHistory);
        plan_.elsewhere = elsewhere(backup_.records, found, ask.pastRuns, folders);
    }

    AppendPlan run() {
        refuseOpenRepair();
        std::size_t seen = 0;
        for (const SourceFile& file : card_.files) {
            if (++seen % 1000 == 0)
                stopIf(isCancelled_);
            look(file);
        }
        requireHeldFiles();
        findUnknownFiles();
        // The last check: only now is it known which copies without a line look like files of this card.
        if (recordedOnCard_ == 0 && hasRecords())
            throw refuse(PreflightCode::appendOtherCard,
                         "None of the files of the earlier backup is on the card — is it "
                         "a different card? Make a full copy.");
        if (!conflicts_.empty())
            throw stopped(conflicts_, nextFreeFolder());
        return finish();
    }

private:
    // A killed repair left lines for files that the reports know. Only a repair may finish it, because copies that it
    // found bad may still stand as good in the records.
    void refuseOpenRepair() const {
        if (!unfinished_)
            return;
        if (isOpenRepair(*unfinished_, backup_.records))
            throw refuse(PreflightCode::other, VIPMsg::repairOpen(backup_.paths.front()));
    }

    // Of all files of the card; gathered for the first that asks, for most runs have nothing new.
    bool isOnCard(const std::string& key) {
        if (cardNames_.empty())
            for (const SourceFile& file : card_.files)
                cardNames_.insert(pathKey(file.relPath));
        return cardNames_.contains(key);
    }

    // A name that a new file, or its temporary name, must not collide with.
    bool isTaken(const std::string& key) {
        return isOnCard(key) ||
               std::ranges::any_of(backup_.records, [&](const auto& record) { return record.files.contains(key); });
    }

    bool hasRecords() const {
        if (unfinished_ && !unfinished_->mentioned().empty())
            return true;
        return std::any_of(backup_.records.begin(), backup_.records.end(),
                           [](const CardRecord& record) { return !record.files.empty(); });
    }

    void look(const SourceFile& file) {
        const bool exactly = twins_.contains(file.relPath);
        std::vector<bool> lacks(folders_.size(), false);
        const RecordedFile* holder = nullptr;
        bool recorded = false;
        bool unproved = false;
        bool differs = false;
        for (std::size_t d = 0; d < folders_.size(); ++d) {
            const RecordedFile* found = backup_.records[d].find(file.relPath, exactly);
            recorded = recorded || found;
            if (!found || neverCame(*found, d)) {
                lacks[d] = true;
                continue;
            }
            holder = found;
            const auto& entry = *found->file;
            if (entry.size != file.size || !FileTimes::close(entry.modified, file.mtime, localTime_)) {
                if (!std::exchange(differs, true))
                    conflicts_.push_back(conflict(file, entry.size, entry.modified));
                continue;
            }
            unproved = checkCopy(file, *found, d) || unproved;
        }
        recordedOnCard_ += recorded ? 1 : 0;
        if (!holder) {
            lookAtNew(file);
            return;
        }
        if (differs)
            return;
        // Disks may have the same generation but different files, if they were appended to one by one. Files that a
        // killed run began to copy belong to its generation on every disk.
        const bool begun = unfinished_ && unfinished_->mentions(file.relPath);
        const bool proves = ask_.verify && (unproved || ask_.compareCard);
        if (begun || proves || std::ranges::find(lacks, true) != lacks.end())
            bringTo(file, lacks, *holder->file);
        else
            plan_.unverifiedEarlier += unproved ? 1 : 0;
    }

    // No copy exists: the card did not give the file, or the run ended before it.
    bool neverCame(const RecordedFile& recorded, std::size_t d) const {
        const auto& file = *recorded.file;
        return (file.sourceError && !file.xxh64) || backup_.records[d].statusOf(recorded) == "pending";
    }

    // A file that some disks of the backup hold and others lack, or that was never proved: it is copied to those that
    // lack it, must be what the record says, and is read back everywhere.
    void bringTo(const SourceFile& file, const std::vector<bool>& lacks, const OffloadReport::FileEntry& entry) {
        const std::size_t before = plan_.newFiles.size();
        lookAtNew(file);
        if (plan_.newFiles.size() == before)
            return; // left for the next append
        ManifestRecord known;
        known.path = file.relPath;
        known.size = file.size;
        known.modified = file.mtime;
        known.xxh64 = entry.xxh64;
        partly_.emplace(before, std::pair(lacks, std::move(known)));
    }

    // True when nothing has proved that the copy on disk `d` is what the record says.
    bool checkCopy(const SourceFile& file, const RecordedFile& record, std::size_t d) {
        const std::string_view status = backup_.records[d].statusOf(record);
        if (status != "written" && status != "verified")
            throw refuse(PreflightCode::appendFailedFile,
                         fmt::format("{} was not copied correctly to {} in the earlier backup — cannot append; Repair "
                                     "({} repair) copies such files again from the card.",
                                     file.relPath, disk(backup_.paths[d]), Product::cli));
        const SourceFile* present = folders_[d].file(file.relPath, twins_.contains(file.relPath));
        if (present && present->size != file.size)
            throw refuse(PreflightCode::appendMissingFile,
                         fmt::format("A file of the earlier backup has another size on {}: {} ({}, in the backup {}) — "
                                     "check the backup with {}, then run Repair ({} repair).",
                                     disk(backup_.paths[d]), file.relPath, exactBytes(present->size),
                                     exactBytes(file.size), verifyHint, Product::cli));
        if (!present)
            throw refuse(PreflightCode::appendMissingFile,
                         fmt::format("A file of the earlier backup is missing on {}: {} — check the backup with {}. "
                                     "Repair ({} repair) copies it again from the card.",
                                     disk(backup_.paths[d]), file.relPath, verifyHint, Product::cli));
        // Every copy has the time of the card's file: one that has another was touched since.
        return status != "verified" || record.report->verifyIncomplete.value_or(false) ||
               !FileTimes::close(present->mtime, record.file->modified, localTime_);
    }

    void lookAtNew(const SourceFile& file) {
        if (unfinished_) {
            for (std::size_t d = 0; d < folders_.size(); ++d)
                if (unfinished_->fileOf(d, file, localTime_) || unfinished_->partOf(d, file, localTime_)) {
                    ++recordedOnCard_;
                    break;
                }
            if (unfinished_->fixedFiles && !unfinished_->fixedFiles->contains(pathKey(file.relPath))) {
                ++plan_.later;
                return;
            }
        }
        const std::string part = DestWriter::partName(file.relPath);
        if (isTaken(pathKey(part)))
            conflicts_.push_back(fmt::format(
                "{} (the temporary copy name {} is another file of the backup or the card)", file.relPath, part));
        newParts_.insert(pathKey(part));
        plan_.newFiles.push_back(file);
    }

    // Every file that the killed run copied completely must still be on the card, or its copies would stand in no
    // record; also where its last line was still waiting for a flush. Files of a report that is already on a disk must
    // be there too. A file that no disk has complete is recorded as lost, and what was begun of it moves aside.
    void requireHeldFiles() {
        if (!unfinished_)
            return;
        std::map<std::string, std::string> missing; // by path key
        std::map<std::string, UncopiedItem> gone;
        const auto isWanted = [&](const std::string& path, std::size_t d) {
            const std::string key = pathKey(path);
            return !isOnCard(key) && !backup_.records[d].files.contains(key);
        };
        for (std::size_t d = 0; d < folders_.size(); ++d) {
            for (const auto& [key, record] : unfinished_->files[d])
                if (isWanted(record.path, d))
                    missing.emplace(key, record.path);
            for (const auto& [key, part] : unfinished_->parts[d])
                if (isWanted(part.path, d)) {
                    if (folders_[d].file(part.path))
                        missing.emplace(key, part.path);
                    else
                        gone.emplace(key, isGone(part.path, part.size, part.modified));
                    leftParts_.insert(pathKey(DestWriter::partName(part.path)));
                }
            if (unfinished_->report)
                for (const auto& file : unfinished_->report->files) {
                    if (!isWanted(file.path, d))
                        continue;
                    if (file.sourceError)
                        gone.emplace(pathKey(file.path), isGone(file.path, file.size, file.modified));
                    else
                        missing.emplace(pathKey(file.path), file.path);
                }
        }
        for (const auto& [key, path] : missing)
            conflicts_.push_back(Msg::repairNotOnCard(path));
        for (const auto& [key, item] : gone)
            if (!missing.contains(key) &&
                std::ranges::find(card_.uncopied, item.shown, &UncopiedItem::shown) == card_.uncopied.end())
                card_.uncopied.push_back(item);
    }

    static UncopiedItem isGone(const std::string& path, std::int64_t size, Timestamp modified) {
        return {path,  escapeForDisplay(path),
                size,  modified,
                false, "it was on the card when the backup began, and is gone"};
    }

    // Files on the disks that neither a report nor the interrupted run accounts for.
    void findUnknownFiles() {
        std::unordered_map<std::string, const SourceFile*> wanted;
        for (const SourceFile& file : plan_.newFiles)
            wanted.emplace(twins_.nameOf(file.relPath), &file);
        plan_.leftParts.resize(folders_.size());
        for (std::size_t d = 0; d < folders_.size(); ++d) {
            const auto unknown = [&](const std::string& path) {
                conflicts_.push_back(fmt::format("{} has a file {} that no report knows (an unfinished append?)",
                                                 disk(backup_.paths[d]), path));
            };
            for (const SourceFile& present : folders_[d].files()) {
                if (backup_.records[d].find(present.relPath, twins_.contains(present.relPath)) ||
                    (unfinished_ && newParts_.contains(pathKey(present.relPath))))
                    continue;
                if (leftParts_.contains(pathKey(present.relPath))) {
                    plan_.leftParts[d].push_back(present.relPath);
                    continue;
                }
                const auto file = wanted.find(twins_.nameOf(present.relPath));
                // The run that died made this file if one of its lines, on any disk, has the name. A power cut may have
                // left anything of its bytes.
                if (unfinished_ && unfinished_->mentions(present.relPath))
                    continue;
                if (DeviceFlush::isLeftover(present.relPath, present.size))
                    continue; // of a run that died while it flushed the disk
                // The file was renamed, but its manifest line was not flushed. It may be incomplete, and of any length
                // after a power cut: it is written again. What does not look like the card's file moves aside.
                const bool ofThisRun = unfinished_ && file != wanted.end();
                if (!ofThisRun)
                    unknown(present.relPath);
                else if (present.size == file->second->size &&
                         FileTimes::close(present.mtime, file->second->mtime, localTime_))
                    ++recordedOnCard_;
            }
            for (const std::string& shown : folders_[d].unrecordable())
                unknown(shown);
        }
    }

    std::string nextFreeFolder() const {
        const std::string today = Layout::today();
        return today + "/" + Layout::uniqueCardFolder(backup_.roots, today, backup_.cardName);
    }

    void decideResume() {
        const auto sizeOnDisk = [&](std::size_t d, const SourceFile& file) -> std::optional<std::int64_t> {
            const SourceFile* present = folders_[d].file(file.relPath, twins_.contains(file.relPath));
            return present ? std::optional(present->size) : std::nullopt;
        };
        plan_.tasks = ResumePlanner::decide(*unfinished_, plan_.newFiles, sizeOnDisk, localTime_, ask_.blockSize);
        plan_.resuming = true;
        if (plan_.sameMedium)
            return;
        // The card may be another one with equal names, sizes and times. Without its block hashes a record makes the
        // run read and compare the file.
        for (FileTask& task : plan_.tasks) {
            task.resume.reset();
            if (task.known) {
                task.known->blocks.clear();
                task.known->blockSize = 0;
            }
        }
    }

    // A disk that has a file by its reports does not get it again. The resume looked at the manifests only.
    void decidePartly() {
        if (plan_.tasks.empty()) {
            FileTask everywhere;
            everywhere.write.assign(folders_.size(), true);
            plan_.tasks.assign(plan_.newFiles.size(), everywhere);
        }
        for (const auto& [file, partly] : partly_) {
            FileTask& task = plan_.tasks[file];
            for (std::size_t d = 0; d < task.write.size(); ++d)
                task.write[d] = task.write[d] && partly.first[d];
            if (!task.known)
                task.known = partly.second;
        }
    }

    AppendPlan finish() {
        const bool nothingToDo = plan_.newFiles.empty() && !(unfinished_ && unfinished_->holdsAnything());
        if (unfinished_ && !nothingToDo)
            decideResume();
        if (!partly_.empty())
            decidePartly();
        plan_.flushFileTaken = !nothingToDo && isTaken(std::string(DeviceFlush::flushFileName));
        describe();
        if (!nothingToDo)
            return std::move(plan_);
        if (!card_.uncopied.empty())
            throw refuse(PreflightCode::other,
                         fmt::format("Nothing new that can be copied — but the card has {} that no backup can hold, "
                                     "for example {}. Do not format the card.",
                                     counted(static_cast<std::int64_t>(card_.uncopied.size()), "name", "names"),
                                     card_.uncopied.front().shown));
        throw NothingNew(std::move(plan_));
    }

    void describe() {
        for (const std::string& dir : card_.dirs)
            if (!std::all_of(folders_.begin(), folders_.end(), [&](const auto& f) { return f.hasFolder(dir); }))
                plan_.newDirs.push_back(dir);
        plan_.cardPaths = backup_.paths;
        plan_.destRoots = backup_.roots;
        plan_.date = backup_.date;
        plan_.cardName = backup_.cardName;
        plan_.generation = unfinished_ ? unfinished_->generation : backup_.nextGeneration;
        const CardRecord& first = backup_.records.front();
        plan_.project = first.project();
        plan_.hashAlgorithms = first.generations.empty() ? std::vector<std::string>{"xxh64"}
                                                         : first.generations.back().report->algorithms();
        if (first.generations.empty() && unfinished_ && unfinished_->report) {
            plan_.project = unfinished_->report->project;
            plan_.hashAlgorithms = unfinished_->report->algorithms();
        }
        plan_.fullScan = card_;
        plan_.records = std::move(backup_.records);
        if (unfinished_)
            plan_.interrupted = unfinished_->report;
    }

    const Ask& ask_;
    Backup backup_;
    const std::optional<Unfinished>& unfinished_;
    const bool localTime_;
    const IsCancelled& isCancelled_;
    SourceScan card_;
    const CaseTwins twins_;
    std::vector<BackupFolder> folders_;
    std::unordered_set<std::string> cardNames_;
    std::unordered_set<std::string> newParts_;  // of files that this run copies
    std::unordered_set<std::string> leftParts_; // of files that the dead run had begun and the card has no more
    std::vector<std::string> conflicts_;
    // By position in newFiles: the disks that lack a file, and its record from one that has it.
    std::map<std::size_t, std::pair<std::vector<bool>, ManifestRecord>> partly_;
    std::size_t recordedOnCard_ = 0;
    AppendPlan plan_;
};

} // namespace

std::string disk(const std::string& path) {
    // Where the disk is away, the path lies on the system disk. The disk that was meant is named.
    if (const std::string volume = Volumes::volumeRoot(path); volume != "/")
        return HistoryText::diskName(volume);
    const std::string_view root = RelativePath::folder(RelativePath::folder(path));
    return HistoryText::diskName(!root.empty() ? std::string(root) : path.starts_with('/') ? "/" : ".");
}

std::string when(Timestamp date) { return TimeText::local(date, "%m-%d %H:%M"); }

// Rounded for the eye; where that would read the same of two that differ, as exactly as they differ.
std::string conflict(const SourceFile& file, std::int64_t size, Timestamp modified) {
    std::string card = formatBytes(file.size), backup = formatBytes(size);
    if (card == backup && file.size != size)
        card = exactBytes(file.size), backup = exactBytes(size);
    const char* const formats[] = {"%m-%d %H:%M", "%m-%d %H:%M:%S", "%Y-%m-%d %H:%M:%S %Z"};
    std::string now, then;
    for (const char* format : formats)
        if (now == then)
            now = TimeText::local(file.mtime, format), then = TimeText::local(modified, format);
    if (now == then && file.mtime.nanoseconds != modified.nanoseconds) {
        now += fmt::format(".{:09}", file.mtime.nanoseconds);
        then += fmt::format(".{:09}", modified.nanoseconds);
    }
    return fmt::format("{}: different size or date (card {}, {}; backup {}, {})", file.relPath, card, now, backup,
                       then);
}

OffloadError stopped(const std::vector<std::string>& lines, const std::string& folder) {
    const auto n = static_cast<std::int64_t>(lines.size());
    return refuse(PreflightCode::appendConflict,
                  fmt::format("Append stopped — nothing was copied. {} {} {} not match the backup:\n  {}\nMake a full "
                              "copy (it goes to {}).",
                              n, plural(n, "file", "files"), plural(n, "does", "do"), join(lines, "\n  "), folder));
}

NothingNew::NothingNew(AppendPlan plan)
    : OffloadError(OffloadError::preflight(PreflightCode::nothingNew, "Nothing new — the backup is complete.")),
      plan_(std::make_shared<const AppendPlan>(std::move(plan))) {}

namespace {

// A run that died at its very beginning leaves empty folders. Which others were to belong to them, only its first line
// and the history tell: finished without knowing, the backup would be called whole though a disk of it was never
// written.
void requireKnownPlaces(const Ask& ask, const ResumePlanner::Findings& found) {
    if (!found.unfinished || found.unfinished->generation > 1 || found.unfinished->holdsAnything() ||
        !found.places.empty())
        return;
    for (const PastRun& run : ask.pastRuns)
        for (const BackupPlace& place : run.places)
            for (const std::string& cardPath : ask.cardPaths)
                if (HistoryRecords::samePlace(place.cardPath, RelativePath::withoutTrailingSlash(cardPath)))
                    return;
    throw refuse(PreflightCode::appendNoReport,
                 fmt::format("{} is empty, and no record says which disks its backup is for: the run that made it died "
                             "at its beginning. Copy the card in full (velmora copy); the empty folder can be deleted.",
                             ask.cardPaths.front()));
}

} // namespace

AppendPlan plan(const Ask& ask, const FolderStates& folders) {
    const ResumePlanner::Findings found = lookAt(ask.cardPaths, folders);
    const auto& unfinished = found.unfinished;
    requireKnownPlaces(ask, found);
    if (found.lagging) {
        AppendPlan plan;
        plan.settle = settleLagging(*found.lagging);
        plan.cardPaths = found.lagging->cardPaths;
        return plan;
    }
    Backup backup =
        checkBackup(ask.cardPaths, unfinished ? std::optional(unfinished->generation) : std::nullopt, folders);
    if (auto report = settleable(unfinished, backup.paths)) {
        AppendPlan plan;
        plan.cardPaths = backup.paths;
        plan.settle = std::move(report);
        return plan;
    }
    bool localTime = FileTimes::storesLocalTime(ask.sourceFilesystem);
    for (const std::string& type : ask.destFilesystems)
        localTime = localTime || FileTimes::storesLocalTime(type);
    return Planning(ask, std::move(backup), found, localTime, folders).run();
}

} // namespace velmora::AppendPlanner
