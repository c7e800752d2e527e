#include "memory/AppendPlanner.h"

#include "base/FileTimes.h"
#include "base/Msg.h"
#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "disks/Volumes.h"
#include "engine/DestWriter.h"
#include "engine/DeviceFlush.h"
#include "engine/Layout.h"
#include "engine/Scanner.h"
#include "memory/BackupFolder.h"
#include "memory/CaseTwins.h"
#include "memory/HistoryText.h"
#include "memory/ResumePlanner.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace velmora::AppendPlanner {

namespace {

OffloadError refuse(PreflightCode code, const std::string& text) { return OffloadError::preflight(code, text); }

void stopIf(const IsCancelled& isCancelled) {
    if (isCancelled && isCancelled())
        throw Cancelled();
}

// "<root>/<date>/<card>" in its three pieces.
struct CardFolder {
    std::string root;
    std::string date;
    std::string card;
};

std::optional<CardFolder> split(const std::string& path) {
    const std::string dated(RelativePath::folder(path));
    CardFolder folder{std::string(RelativePath::folder(dated)), std::string(RelativePath::name(dated)),
                      std::string(RelativePath::name(path))};
    if (folder.date.empty() || folder.card.empty())
        return std::nullopt;
    if (folder.root.empty())
        folder.root = path.starts_with('/') ? "/" : ".";
    return folder;
}

void requireFolder(const std::string& path) {
    if (!IO::isFolder(path))
        throw refuse(
            PreflightCode::appendUnavailable,
            fmt::format("The earlier backup is not available: {} — connect the drive, or make a full copy.", path));
}

CardRecord loadRecord(const std::string& path, std::optional<std::int64_t> unfinished) {
    requireFolder(path);
    CardRecord record = CardRecord::load(path, unfinished ? std::optional(*unfinished - 1) : std::nullopt);
    if (record.reportMissing)
        throw refuse(
            PreflightCode::appendNoReport,
            fmt::format("{} has no report of the earlier backup (_REPORT/offload_report.json) — cannot append.", path));
    if (record.error || !record.problems.empty())
        throw refuse(PreflightCode::other,
                     fmt::format("Cannot read the report of the earlier backup in {} ({}) — cannot "
                                 "append.",
                                 path, record.error ? *record.error : record.problems.front()));
    return record;
}

// The last generation of the chain, not counting the one in progress.
std::int64_t lastMhlGeneration(const std::string& path, std::optional<std::int64_t> unfinished) {
    const auto damaged = [&] {
        return refuse(
            PreflightCode::appendMhlDamaged,
            fmt::format("The ASC MHL history in {} is damaged — check it with {}; cannot append.", path, verifyHint));
    };
    MHLHistory history;
    try {
        history = MHLReader::read(path);
    } catch (const MHLFormatError&) {
        throw damaged();
    }
    // Generation 1 itself may have died before its chain.
    const bool firstIsOpen = unfinished == 1;
    if (!history.chainRead && !firstIsOpen && !history.exists)
        throw refuse(PreflightCode::appendNoMhl,
                     fmt::format("{} has no ASC MHL (ascmhl/ascmhl_chain.xml) — cannot append.", path));
    const auto& problems = unfinished ? history.problemsBeside(*unfinished) : history.chainProblems;
    if (!problems.empty() || !history.refusedPaths.empty())
        throw damaged();
    std::int64_t last = history.lastChained();
    if (unfinished && last == *unfinished)
        --last;
    return last;
}

std::int64_t lastReport(const CardRecord& record, std::optional<std::int64_t> unfinished) {
    std::int64_t last = record.highestReportNumber;
    if (unfinished && last == *unfinished)
        last = record.generations.empty() ? 0 : record.generations.back().generation;
    return last;
}

std::string generationList(const std::vector<std::string>& paths, const std::vector<std::int64_t>& generations) {
    std::vector<std::string> parts;
    for (std::size_t d = 0; d < paths.size(); ++d)
        parts.push_back(fmt::format("{} has {} MHL {}", disk(paths[d]), generations[d],
                                    plural(generations[d], "generation", "generations")));
    return join(parts, ", ");
}

// One run of the planner: what it has read, and what it finds.
class Planning {
public:
    Planning(const std::string& source, Backup backup, std::optional<Unfinished> unfinished, bool localTime,
             std::int64_t blockSize, const IsCancelled& isCancelled)
        : backup_(std::move(backup)), unfinished_(std::move(unfinished)), localTime_(localTime), blockSize_(blockSize),
          isCancelled_(isCancelled), card_(Scanner::scan(source, isCancelled)), twins_(card_.files) {
        folders_ = sideBySide(backup_.paths.size(),
                              [&](std::size_t d) { return BackupFolder(backup_.paths[d], isCancelled); });
        plan_.source = source;
    }

    AppendPlan run() {
        refuseOpenRepair();
        collectNames();
        std::size_t seen = 0;
        for (const SourceFile& file : card_.files) {
            if (++seen % 1000 == 0)
                stopIf(isCancelled_);
            look(file);
        }
        if (recordedOnCard_ == 0 && hasRecords())
            throw refuse(PreflightCode::appendOtherCard,
                         "None of the files of the earlier backup is on the card — is it "
                         "a different card? Make a full copy.");
        requireHeldFiles();
        findUnknownFiles();
        if (!conflicts_.empty())
            throw stopped(conflicts_, nextFreeFolder());
        return finish();
    }

private:
    // A repair that died left lines for files that the reports know. It is for a repair to finish: the copies that it
    // found bad may be bad still, though every record calls them good.
    void refuseOpenRepair() const {
        if (!unfinished_)
            return;
        if (isOpenRepair(*unfinished_, backup_.records))
            throw refuse(PreflightCode::other, VIPMsg::repairOpen(backup_.paths.front()));
    }

    // Names that a new file, or its temporary name, must not collide with.
    void collectNames() {
        for (const SourceFile& file : card_.files)
            cardNames_.insert(pathKey(file.relPath));
        names_ = cardNames_;
        for (const CardRecord& record : backup_.records)
            for (const auto& [key, recorded] : record.files)
                names_.insert(key);
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
        bool unverified = false;
        bool differs = false;
        for (std::size_t d = 0; d < folders_.size(); ++d) {
            const RecordedFile* found = backup_.records[d].find(file.relPath, exactly);
            if (!found) {
                lacks[d] = true;
                continue;
            }
            holder = found;
            const RecordedFile& record = *found;
            const auto& entry = *record.file;
            if (entry.size != file.size || !FileTimes::close(entry.modified, file.mtime, localTime_)) {
                if (!std::exchange(differs, true))
                    conflicts_.push_back(conflict(file, entry.size, entry.modified));
                continue;
            }
            unverified = checkCopy(file, record, d) || unverified;
        }
        if (!holder) {
            lookAtNew(file);
            return;
        }
        ++recordedOnCard_;
        plan_.unverifiedEarlier += unverified ? 1 : 0;
        // Disks that were appended to one by one may stand at the same generation and yet not hold the same files. What
        // a dead run had begun to bring in step belongs to its generation, also on the disk that has it.
        const bool begun = unfinished_ && unfinished_->mentions(file.relPath);
        if (!differs && (begun || std::ranges::find(lacks, true) != lacks.end()))
            bringTo(file, lacks, *holder->file);
    }

    // A file that some disks of the backup hold and others lack: it is copied to those that lack it, and must be what
    // the record says.
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

    // True when the recorded copy on disk `d` was never verified.
    bool checkCopy(const SourceFile& file, const RecordedFile& record, std::size_t d) {
        const std::size_t at = backup_.records[d].columnOrPlace(*record.report, d);
        const std::string status = at < record.file->destinations.size() ? record.file->destinations[at] : "";
        if (status != "written" && status != "verified")
            throw refuse(PreflightCode::appendFailedFile,
                         fmt::format("{} was not copied correctly to {} in the earlier backup — cannot append, make a "
                                     "full copy.",
                                     file.relPath, disk(backup_.paths[d])));
        const SourceFile* present = folders_[d].file(file.relPath, twins_.contains(file.relPath));
        if (!present || present->size != file.size)
            throw refuse(PreflightCode::appendMissingFile,
                         fmt::format("A file of the earlier backup is missing on {}: {} — check the backup with {}.",
                                     disk(backup_.paths[d]), file.relPath, verifyHint));
        return status != "verified";
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
        if (names_.contains(pathKey(part)))
            conflicts_.push_back(fmt::format(
                "{} (the temporary copy name {} is another file of the backup or the card)", file.relPath, part));
        newParts_.insert(pathKey(part));
        plan_.newFiles.push_back(file);
    }

    // What the dead run holds complete, the card must still have: a generation without it would leave copies on the
    // disks that no record names. A report that is on a disk already must not lose a file either; what the card could
    // not give then is excused.
    void requireHeldFiles() {
        if (!unfinished_)
            return;
        std::map<std::string, std::string> missing; // by path key
        const auto need = [&](const std::string& path, std::size_t d) {
            const std::string key = pathKey(path);
            if (!cardNames_.contains(key) && !backup_.records[d].files.contains(key))
                missing.emplace(key, path);
        };
        for (std::size_t d = 0; d < folders_.size(); ++d) {
            for (const auto& [key, record] : unfinished_->files[d])
                need(record.path, d);
            // A generation of nothing at all would be a record that no later run can read.
            if (plan_.newFiles.empty())
                for (const auto& [key, part] : unfinished_->parts[d])
                    need(part.path, d);
            if (unfinished_->report)
                for (const auto& file : unfinished_->report->files)
                    if (!file.sourceError)
                        need(file.path, d);
        }
        for (const auto& [key, path] : missing)
            conflicts_.push_back(Msg::repairNotOnCard(path));
        if (conflicts_.empty() && plan_.newFiles.empty() && card_.uncopied.empty())
            for (const std::string& key : unfinished_->mentioned())
                conflicts_.push_back(Msg::repairNotOnCard(key));
    }

    // Files on the disks that neither a report nor the interrupted run accounts for.
    void findUnknownFiles() {
        std::unordered_map<std::string, const SourceFile*> wanted;
        for (const SourceFile& file : plan_.newFiles)
            wanted.emplace(twins_.nameOf(file.relPath), &file);
        for (std::size_t d = 0; d < folders_.size(); ++d) {
            const auto unknown = [&](const std::string& path) {
                conflicts_.push_back(fmt::format("{} has a file {} that no report knows (an unfinished append?)",
                                                 disk(backup_.paths[d]), path));
            };
            for (const SourceFile& present : folders_[d].files()) {
                if (backup_.records[d].find(present.relPath, twins_.contains(present.relPath)) ||
                    (unfinished_ && newParts_.contains(pathKey(present.relPath))))
                    continue;
                const auto file = wanted.find(twins_.nameOf(present.relPath));
                // A name that a line of the dead run holds, on any disk, is of its making, whatever a power cut left
                // of the file here.
                if (unfinished_ && unfinished_->mentions(present.relPath))
                    continue;
                if (present.relPath == DeviceFlush::flushFileName)
                    continue; // of a run that died while it flushed the disk
                // Renamed, but its line was still waiting for the device flush: whole only by luck, so it is written
                // anew and the copy of the dead run gives way. What does not look like the card's file is somebody
                // else's and stays.
                const bool ofThisRun = unfinished_ && file != wanted.end() && present.size == file->second->size &&
                                       FileTimes::close(present.mtime, file->second->mtime, localTime_);
                if (!ofThisRun)
                    unknown(present.relPath);
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
        auto decision = ResumePlanner::decide(*unfinished_, plan_.newFiles, sizeOnDisk, localTime_, blockSize_);
        plan_.write = std::move(decision.write);
        plan_.known = std::move(decision.known);
        plan_.resume = std::move(decision.resume);
        plan_.resuming = true;
    }

    // What a disk holds by its record is not written there again; the resume has judged by the manifests alone.
    void decidePartly() {
        if (!plan_.write) {
            plan_.write.emplace(plan_.newFiles.size(), std::vector<bool>(folders_.size(), true));
            plan_.known.emplace(plan_.newFiles.size());
        }
        for (const auto& [file, partly] : partly_) {
            std::vector<bool>& write = (*plan_.write)[file];
            for (std::size_t d = 0; d < write.size(); ++d)
                write[d] = write[d] && partly.first[d];
            if (auto& known = (*plan_.known)[file]; !known)
                known = partly.second;
        }
    }

    AppendPlan finish() {
        if (unfinished_)
            decideResume();
        if (!partly_.empty())
            decidePartly();
        plan_.flushFileTaken = names_.contains(std::string(DeviceFlush::flushFileName));
        if (plan_.newFiles.empty() && !plan_.resuming) {
            if (!card_.uncopied.empty())
                throw refuse(
                    PreflightCode::other,
                    fmt::format("Nothing new that can be copied — but the card has {} that no backup can hold, "
                                "for example {}. Do not format the card.",
                                counted(static_cast<std::int64_t>(card_.uncopied.size()), "name", "names"),
                                card_.uncopied.front().shown));
            throw refuse(PreflightCode::nothingNew, "Nothing new — the backup is complete.");
        }
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
        plan_.fullScan = std::move(card_);
        return std::move(plan_);
    }

    Backup backup_;
    std::optional<Unfinished> unfinished_;
    const bool localTime_;
    const std::int64_t blockSize_;
    const IsCancelled& isCancelled_;
    SourceScan card_;
    const CaseTwins twins_;
    std::vector<BackupFolder> folders_;
    std::unordered_set<std::string> cardNames_;
    std::unordered_set<std::string> names_; // of the card and of the records
    std::unordered_set<std::string> newParts_;
    std::vector<std::string> conflicts_;
    // By position in newFiles: the disks that lack a file, and its record from one that has it.
    std::map<std::size_t, std::pair<std::vector<bool>, ManifestRecord>> partly_;
    std::size_t recordedOnCard_ = 0;
    AppendPlan plan_;
};

} // namespace

std::string disk(const std::string& path) {
    const std::string named =
        HistoryText::diskName(VolumeFacts::isUserVolumePath(path) ? Volumes::volumeRoot(path) : path);
    if (named != path)
        return named;
    const auto folder = split(path);
    return folder ? folder->root : path;
}

std::string when(Timestamp date) { return TimeText::local(date, "%m-%d %H:%M"); }

std::string conflict(const SourceFile& file, std::int64_t size, Timestamp modified) {
    return fmt::format("{}: different size or date (card {}, {}; backup {}, {})", file.relPath, formatBytes(file.size),
                       when(file.mtime), formatBytes(size), when(modified));
}

OffloadError stopped(const std::vector<std::string>& lines, const std::string& folder) {
    const auto n = static_cast<std::int64_t>(lines.size());
    return refuse(PreflightCode::appendConflict,
                  fmt::format("Append stopped — nothing was copied. {} {} {} not match the backup:\n  {}\nMake a full "
                              "copy (it goes to {}).",
                              n, plural(n, "file", "files"), plural(n, "does", "do"), join(lines, "\n  "), folder));
}

std::optional<Unfinished> findUnfinished(const std::vector<std::string>& paths) {
    try {
        return ResumePlanner::find(paths);
    } catch (const OffloadError&) {
        for (const std::string& path : paths)
            requireFolder(path); // a disk that is not there is behind all others, and that is what to say of it
        throw;
    }
}

bool isOpenRepair(const Unfinished& unfinished, const std::vector<CardRecord>& records) {
    if (unfinished.report)
        return unfinished.report->isRepair();
    bool any = false;
    for (std::size_t d = 0; d < records.size(); ++d) {
        const auto isKnown = [&](const auto& line) {
            any = true;
            return records[d].files.contains(line.first);
        };
        if (!std::ranges::all_of(unfinished.files[d], isKnown) || !std::ranges::all_of(unfinished.parts[d], isKnown))
            return false;
    }
    return any;
}

Backup checkBackup(const std::vector<std::string>& paths, std::optional<std::int64_t> unfinishedGeneration) {
    if (paths.empty())
        throw refuse(PreflightCode::noDestination, "No destination selected.");
    Backup backup;
    for (const std::string& given : paths) {
        const std::string path = RelativePath::withoutTrailingSlash(given);
        const auto folder = split(path);
        if (!folder)
            throw refuse(
                PreflightCode::other,
                fmt::format("{} is not a card folder of a backup (<destination>/<date>/<card>) — cannot append.",
                            given));
        backup.paths.push_back(path);
        backup.roots.push_back(folder->root);
        backup.date = folder->date;
        backup.cardName = folder->card;
    }
    std::vector<std::string> tails;
    for (const std::string& path : backup.paths) {
        const auto folder = split(path);
        tails.push_back(folder->date + "/" + folder->card);
    }
    if (std::adjacent_find(tails.begin(), tails.end(), std::not_equal_to<>()) != tails.end())
        throw refuse(PreflightCode::other,
                     fmt::format("The folders of the earlier backup have different names ({}) — can append only into "
                                 "folders with the same date and card name.",
                                 join(tails, ", ")));
    auto loaded = sideBySide(backup.paths.size(), [&](std::size_t d) {
        CardRecord record = loadRecord(backup.paths[d], unfinishedGeneration);
        const std::int64_t generation = lastMhlGeneration(backup.paths[d], unfinishedGeneration);
        const std::int64_t report = lastReport(record, unfinishedGeneration);
        if (report != generation)
            throw refuse(
                PreflightCode::other,
                fmt::format("The reports in {} do not match the ASC MHL (the last report is generation {}, the "
                            "last MHL generation {}) — an earlier append did not finish. Check the backup with "
                            "{} and fix the folder by hand; cannot append.",
                            backup.paths[d], report, generation, verifyHint));
        return std::pair(std::move(record), generation);
    });
    std::vector<std::int64_t> generations;
    for (auto& [record, generation] : loaded) {
        backup.records.push_back(std::move(record));
        generations.push_back(generation);
    }
    if (std::adjacent_find(generations.begin(), generations.end(), std::not_equal_to<>()) != generations.end())
        throw refuse(PreflightCode::appendDiverged,
                     fmt::format("The backups on the destinations differ ({}) — check them with {}; cannot append.",
                                 generationList(backup.paths, generations), verifyHint));
    backup.nextGeneration = unfinishedGeneration.value_or(generations.front() + 1);
    if (unfinishedGeneration && generations.front() != *unfinishedGeneration - 1)
        throw refuse(PreflightCode::appendDiverged,
                     VIPMsg::resumeDiverged(disk(backup.paths.front()), *unfinishedGeneration));
    return backup;
}

AppendPlan plan(const std::string& source, const std::vector<std::string>& cardPaths,
                const std::string& sourceFilesystem, const std::vector<std::string>& destFilesystems,
                std::int64_t blockSize, const IsCancelled& isCancelled) {
    std::optional<Unfinished> unfinished = findUnfinished(cardPaths);
    Backup backup = checkBackup(cardPaths, unfinished ? std::optional(unfinished->generation) : std::nullopt);
    bool localTime = FileTimes::storesLocalTime(sourceFilesystem);
    for (const std::string& type : destFilesystems)
        localTime = localTime || FileTimes::storesLocalTime(type);
    return Planning(source, std::move(backup), std::move(unfinished), localTime, blockSize, isCancelled).run();
}

} // namespace velmora::AppendPlanner
