#include "memory/RepairPlanner.h"

#include "base/FileTimes.h"
#include "base/Hex.h"
#include "base/Msg.h"
#include "base/Product.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "blocks/HashAlgo.h"
#include "disks/VolumeSerial.h"
#include "engine/DestWriter.h"
#include "engine/Layout.h"
#include "engine/Scanner.h"
#include "memory/CaseTwins.h"
#include "memory/ResumePlanner.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>
#include <unordered_map>

namespace velmora::RepairPlanner {

namespace {

constexpr std::size_t readBytes = std::size_t{16} << 20;

OffloadError refuse(PreflightCode code, std::string_view text) {
    return OffloadError::preflight(code, std::string(text));
}

// The same refusal in the words of a repair.
OffloadError forRepair(const OffloadError& error) {
    const std::string text = Msg::forRepair(error.what());
    return error.code() ? OffloadError::preflight(*error.code(), text) : OffloadError::failed(text);
}

struct Bad {
    std::string relPath;
    // Per destination: it must be written; and whether only an old record calls the copy bad.
    std::vector<bool> write;
    std::vector<bool> onlyRecordedBad;
    std::string cardHash; // xxh64 of the card's file while planning
};

class Planning {
public:
    Planning(const AppendPlanner::Ask& ask, const Checked& checked, bool localTime, const FolderStates& folders,
             const IsCancelled& isCancelled, const std::function<void(std::int64_t)>& progress)
        : ask_(ask), source_(ask.source), checked_(checked), backup_(checked.backup), open_(checked.found.unfinished),
          localTime_(localTime), folders_(folders), isCancelled_(isCancelled), progress_(progress),
          card_(Scanner::scan(ask.source, isCancelled)), twins_(card_.files, backup_.records) {
        for (const SourceFile& file : card_.files)
            onCard_.emplace(twins_.nameOf(file.relPath), &file);
    }

    RepairPlan run(const std::vector<Findings>& findings) {
        collect(findings);
        takeUpOpenRepair();
        if (!sameCard())
            throw refuse(PreflightCode::other, Msg::repairOtherCard);
        const bool sameMedium =
            AppendPlanner::sameMedium(backup_.records, checked_.found, ask_.medium, ask_.mediumInHistory);
        for (auto& [key, bad] : bad_)
            examine(key, bad);
        if (!sameMedium)
            compareTheRest();
        if (!lines_.empty())
            throw conflict();
        return finish();
    }

private:
    const CardRecord& record(std::size_t d) const { return backup_.records[d]; }

    Bad& badFile(const std::string& relPath) {
        Bad& bad = bad_[twins_.nameOf(relPath)];
        if (bad.relPath.empty()) {
            bad.relPath = relPath;
            bad.write.resize(backup_.paths.size());
            bad.onlyRecordedBad.resize(backup_.paths.size());
        }
        return bad;
    }

    void collect(const std::vector<Findings>& findings) {
        for (std::size_t d = 0; d < backup_.paths.size(); ++d) {
            for (const auto* list : {&findings[d].defective, &findings[d].missing})
                for (const std::string& path : *list)
                    badFile(path).write[d] = true;
            for (const auto* map : {&record(d).files, &record(d).twins})
                for (const auto& [key, recorded] : *map)
                    collectFailed(recorded, d);
        }
    }

    // What the card never gave, and does not hold now under a name that could be copied, no repair can bring back; that
    // must not keep it from mending the rest.
    bool isOutOfReach(const OffloadReport::FileEntry& file) const {
        return file.sourceError && !file.xxh64 && !onCard_.contains(twins_.nameOf(file.path));
    }

    // A copy that failed when it was made, or that a cancelled repair did not get to. A good one may lie there by now.
    void collectFailed(const RecordedFile& recorded, std::size_t d) {
        const std::string_view status = record(d).statusOf(recorded);
        const bool unread = recorded.file->sourceError.has_value(); // of the card, whatever the copy is
        if ((status == "verified" && !unread) || isOutOfReach(*recorded.file))
            return;
        if (status == "written" || status == "verified") { // it is read back and recorded
            if (onCard_.contains(twins_.nameOf(recorded.file->path)))
                badFile(recorded.file->path);
            return;
        }
        Bad& bad = badFile(recorded.file->path);
        bad.onlyRecordedBad[d] = !bad.write[d];
        bad.write[d] = true;
    }

    // What an interrupted repair has put right already is read back and recorded by this one, so that its generation
    // does not stay open for good.
    void takeUpOpenRepair() {
        if (!open_)
            return;
        for (const std::string& key : open_->mentioned())
            if (const RecordedFile* known = recorded(key, false))
                badFile(known->file->path);
        if (open_->report)
            for (const auto& file : open_->report->files)
                if (!isOutOfReach(file))
                    badFile(file.path);
    }

    // The newest record of a file on any disk; disks in step agree.
    const RecordedFile* recorded(const std::string& path, bool exactly) const {
        for (const CardRecord& each : backup_.records)
            if (const RecordedFile* found = each.find(path, exactly))
                return found;
        return nullptr;
    }

    bool matches(const SourceFile& file, const OffloadReport::FileEntry& entry) const {
        return file.size == entry.size && FileTimes::close(file.mtime, entry.modified, localTime_);
    }

    // Some file of the backup is on the card as it was then. A card that was shot on since keeps the others.
    bool sameCard() const {
        for (const auto& [key, recorded] : record(0).files)
            if (const auto found = onCard_.find(twins_.nameOf(recorded.file->path));
                found != onCard_.end() && matches(*found->second, *recorded.file))
                return true;
        return false;
    }

    // A digest of the entry; every report but a foreign one has the first.
    static std::pair<std::string, std::string> digestIn(const OffloadReport::FileEntry& entry) {
        for (const auto& [name, value] :
             {std::pair("xxh64", entry.xxh64), std::pair("xxh128", entry.xxh128), std::pair("md5", entry.md5)})
            if (value)
                return {name, *value};
        return {};
    }

    // The newest digest of the file on any disk. A run that could not read the file recorded none; the card's present
    // content must not stand in for it.
    std::pair<std::string, std::string> digestOf(const OffloadReport::FileEntry& newest) const {
        if (auto digest = digestIn(newest); !digest.first.empty())
            return digest;
        for (const CardRecord& each : backup_.records)
            for (auto generation = each.generations.rbegin(); generation != each.generations.rend(); ++generation)
                for (const auto& file : generation->report->files)
                    if (file.path == newest.path)
                        if (auto digest = digestIn(file); !digest.first.empty())
                            return digest;
        return {};
    }

    // What a file of the card or of a disk gives now.
    struct Content {
        std::int64_t size = 0;
        std::string xxh64;
        std::string recorded; // by the algorithm of the record
    };

    Content contentOf(const std::string& root, const std::string& relPath, const std::string& algorithm) {
        auto reader = UncachedReader::beneath(root, relPath);
        if (buffer_.size() == 0)
            buffer_ = IO::allocateAligned(readBytes);
        XXH64Stream hash;
        const auto other = HashAlgo::make(algorithm);
        Content content;
        while (const std::size_t got = reader.readAt(buffer_.span(), content.size)) {
            hash.update(buffer_.data(), got);
            if (other)
                other->update(buffer_.data(), got);
            content.size += static_cast<std::int64_t>(got);
            if (progress_)
                progress_(static_cast<std::int64_t>(got));
            if (isCancelled_ && isCancelled_())
                throw Cancelled();
        }
        content.xxh64 = Hex::of64(hash.digest());
        content.recorded = other ? other->value() : "-";
        return content;
    }

    void examine(const std::string& key, Bad& bad) {
        const auto found = onCard_.find(key);
        if (found == onCard_.end()) {
            lines_.push_back(Msg::repairNotOnCard(bad.relPath));
            return;
        }
        const SourceFile& file = *found->second;
        const RecordedFile* known = recorded(bad.relPath, twins_.contains(bad.relPath));
        if (!known) {
            lines_.push_back(bad.relPath + ": no report of the backup names it, so the card cannot be held against it");
            return;
        }
        if (const auto reason = nameProblem(file.relPath)) {
            lines_.push_back(*reason);
            return;
        }
        const auto [algorithm, digest] = digestOf(*known->file);
        try {
            const Content content = contentOf(source_, file.relPath, algorithm);
            // Without any digest, size and time are all that tells the file from another.
            const bool same = content.size == known->file->size &&
                              (algorithm.empty() ? matches(file, *known->file)
                                                 : HashAlgo::equal(algorithm, digest, content.recorded));
            if (!same)
                lines_.push_back(Msg::repairCardDiffers(bad.relPath,
                                                        describe(content.size, algorithm, content.recorded),
                                                        describe(known->file->size, algorithm, digest)));
            bad.cardHash = content.xxh64;
            for (std::size_t d = 0; d < bad.write.size(); ++d)
                if (bad.onlyRecordedBad[d] && isGoodCopy(d, file, content))
                    bad.write[d] = false; // it is read back and recorded, not moved aside and written again
        } catch (const IOError& error) {
            lines_.push_back(Msg::repairCardUnreadable(bad.relPath, error.what()));
        }
    }

    // A card of the same names, sizes and times may be another one. Reading it is the only way to know.
    void compareTheRest() {
        for (const SourceFile& file : card_.files) {
            const RecordedFile* known = recorded(file.relPath, twins_.contains(file.relPath));
            if (!known || bad_.contains(twins_.nameOf(file.relPath)))
                continue;
            const auto [algorithm, digest] = digestOf(*known->file);
            try {
                const Content content = contentOf(source_, file.relPath, algorithm);
                if (content.size != known->file->size ||
                    (!algorithm.empty() && !HashAlgo::equal(algorithm, digest, content.recorded)))
                    lines_.push_back(Msg::repairCardDiffers(file.relPath,
                                                            describe(content.size, algorithm, content.recorded),
                                                            describe(known->file->size, algorithm, digest)));
            } catch (const IOError& error) {
                lines_.push_back(Msg::repairCardUnreadable(file.relPath, error.what()));
            }
        }
    }

    bool isGoodCopy(std::size_t d, const SourceFile& file, const Content& content) {
        try {
            const Content copy = contentOf(record(d).cardPath, file.relPath, "");
            return copy.size == content.size && copy.xxh64 == content.xxh64;
        } catch (const IOError&) {
            return false;
        }
    }

    // A new copy that would take the place of another file: its temporary name is one of the card or the backup, or a
    // disk gives another file under its name.
    std::optional<std::string> nameProblem(const std::string& relPath) const {
        const std::string part = DestWriter::partName(relPath);
        if (onCard_.contains(twins_.nameOf(part)) || recorded(part, false))
            return fmt::format("{} (the temporary copy name {} is another file of the backup or the card)", relPath,
                               part);
        for (const CardRecord& each : backup_.records) {
            const std::string path = RelativePath::join(each.cardPath, relPath);
            if (twins_.contains(relPath) && IO::exists(path) && !IO::holdsName(path))
                return relPath + " on " + AppendPlanner::disk(each.cardPath) +
                       ": this disk does not tell the name from that of another file";
        }
        return std::nullopt;
    }

    static std::string describe(std::int64_t size, const std::string& algorithm, const std::string& digest) {
        return algorithm.empty() ? formatBytes(size) : fmt::format("{}, {} {}", formatBytes(size), algorithm, digest);
    }

    OffloadError conflict() const {
        const auto n = static_cast<std::int64_t>(lines_.size());
        return refuse(PreflightCode::repairConflict,
                      fmt::format("Repair stopped — nothing was copied. {} {} cannot be repaired:\n  {}\nThe card has "
                                  "changed since the backup, or a file is missing in the backup folder — check it with "
                                  "Verify backup, or make a full copy.",
                                  n, plural(n, "file", "files"), join(lines_, "\n  ")));
    }

    RepairPlan finish() {
        RepairPlan repair;
        OffloadPlan& plan = repair.plan;
        repair.finishes = open_.has_value();
        repair.card = card_;
        plan.sourceMedium = ask_.medium;
        plan.elsewhere = AppendPlanner::elsewhere(backup_.records, checked_.found, ask_.pastRuns, folders_);
        plan.source = source_;
        plan.scan.root = card_.root;
        plan.mode = PlanMode::repair;
        // Part files, and copies made whole a moment before the end, of a repair that died give way to this one.
        plan.resuming = true;
        plan.flushFileTaken = recorded(std::string(DeviceFlush::flushFileName), false) != nullptr;
        plan.generation = backup_.nextGeneration;
        plan.date = backup_.date;
        plan.cardName = backup_.cardName;
        plan.destRoots = backup_.roots;
        plan.fixedCardPaths = backup_.paths;
        plan.project = record(0).project();
        if (!record(0).generations.empty())
            plan.hashKinds = HashKinds::from(record(0).generations.back().report->algorithms());
        std::map<std::string, const Bad*> inOrder; // the order of the copy is that of the paths
        for (const auto& [key, bad] : bad_)
            inOrder.emplace(onCard_.at(key)->relPath, &bad);
        for (const auto& [path, bad] : inOrder) {
            const SourceFile& file = plan.scan.files.emplace_back(*onCard_.at(twins_.nameOf(path)));
            // While copying, the card must give what it gave during planning; it may have been swapped.
            FileTask& task = plan.tasks.emplace_back();
            ManifestRecord& seen = task.known.emplace();
            seen.path = file.relPath;
            seen.size = file.size;
            seen.xxh64 = bad->cardHash;
            const bool anywhere = std::ranges::find(bad->write, true) != bad->write.end();
            ++(anywhere ? repair.rewritten : repair.onlyReadBack);
            task.write = bad->write;
        }
        return repair;
    }

    const AppendPlanner::Ask& ask_;
    const std::string& source_;
    const Checked& checked_;
    const AppendPlanner::Backup& backup_;
    const std::optional<Unfinished>& open_; // an interrupted repair
    const bool localTime_;
    const FolderStates& folders_;
    const IsCancelled& isCancelled_;
    const std::function<void(std::int64_t)>& progress_;
    SourceScan card_;
    const CaseTwins twins_;
    std::unordered_map<std::string, const SourceFile*> onCard_;
    std::map<std::string, Bad> bad_; // by path key
    std::vector<std::string> lines_;
    AlignedBuffer buffer_;
};

// What a run into all of them would take in: the same folder on another disk that is there, at the same generation,
// with nothing open.
bool isInStep(const BackupPlace& place, const AppendPlanner::Backup& backup, const FolderStates& folders) {
    const std::string_view dated = RelativePath::folder(place.cardPath);
    return RelativePath::name(place.cardPath) == backup.cardName && RelativePath::name(dated) == backup.date &&
           IO::isFolder(place.cardPath) &&
           (!place.volumeSerial || VolumeFacts::volumeSerialText(place.cardPath) == place.volumeSerial) &&
           folders.of(place.cardPath).committed() + 1 == backup.nextGeneration &&
           !ResumePlanner::find({place.cardPath}, folders);
}

// A repair of some disks takes them a generation ahead of the rest, and no append to all of them goes on from there.
void refuseLeftOut(const Checked& checked, const FolderStates& folders) {
    std::vector<std::string> leftOut;
    for (const BackupPlace& place : AppendPlanner::elsewhere(checked.backup.records, checked.found, {}, folders))
        try {
            if (isInStep(place, checked.backup, folders))
                leftOut.push_back(place.cardPath);
        } catch (const Cancelled&) {
            throw;
        } catch (const std::exception& error) {
            throw refuse(PreflightCode::other,
                         fmt::format("The backup is also in {} on {}, which was not named, and its records cannot be "
                                     "read ({}): nobody can tell whether it would still be in step. Check it with {}, "
                                     "or disconnect the disk to leave it out.",
                                     place.cardPath, AppendPlanner::disk(place.cardPath), error.what(),
                                     AppendPlanner::verifyHint));
        }
    if (leftOut.empty())
        return;
    std::string words;
    for (const std::string& path : checked.backup.paths)
        words += " --into \"" + path + "\"";
    for (const std::string& path : leftOut)
        words += " --into \"" + path + "\"";
    throw refuse(PreflightCode::other,
                 fmt::format("The backup is also in {}, which was not named: repaired without it, the disks of the "
                             "backup would no longer be in step. Name all of them ({} repair …{}), or disconnect the "
                             "disk that is to be left out.",
                             join(leftOut, ", "), Product::cli, words));
}

} // namespace

Checked check(const std::vector<std::string>& cardPaths, const FolderStates& folders) {
    try {
        Checked checked;
        checked.found = AppendPlanner::lookAt(cardPaths, folders);
        const auto& open = checked.found.unfinished;
        if (const auto& lagging = checked.found.lagging) {
            checked.settle = AppendPlanner::settleLagging(*lagging);
            if (!checked.settle->isRepair())
                throw refuse(PreflightCode::other, VIPMsg::repairUnfinished);
            checked.backup.paths = lagging->cardPaths;
            return checked;
        }
        checked.backup =
            AppendPlanner::checkBackup(cardPaths, open ? std::optional(open->generation) : std::nullopt, folders);
        if (open && !AppendPlanner::isOpenRepair(*open, checked.backup.records))
            throw refuse(PreflightCode::other, VIPMsg::repairUnfinished);
        checked.settle = AppendPlanner::settleable(open, checked.backup.paths);
        if (!open)
            refuseLeftOut(checked, folders);
        return checked;
    } catch (const OffloadError& error) {
        throw forRepair(error);
    }
}

RepairPlan plan(const AppendPlanner::Ask& ask, const Checked& checked, const std::vector<Findings>& findings,
                const FolderStates& folders, const IsCancelled& isCancelled,
                const std::function<void(std::int64_t)>& progress) {
    bool localTime = FileTimes::storesLocalTime(ask.sourceFilesystem);
    for (const std::string& type : ask.destFilesystems)
        localTime = localTime || FileTimes::storesLocalTime(type);
    return Planning(ask, checked, localTime, folders, isCancelled, progress).run(findings);
}

} // namespace velmora::RepairPlanner
