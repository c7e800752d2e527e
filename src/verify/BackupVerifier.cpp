#include "verify/BackupVerifier.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "blocks/HashAlgo.h"
#include "engine/Layout.h"
#include "engine/Scanner.h"
#include "memory/CardRecord.h"
#include "memory/ResumePlanner.h"
#include "mhl/IgnorePatterns.h"
#include "mhl/MHL.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"
#include "records/SourceFile.h"
#include "reports/HashLists.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <unordered_set>

namespace velmora::BackupVerifier {

namespace {

constexpr std::int64_t largestList = std::int64_t{1} << 30;
constexpr std::array<std::string_view, 2> listAlgorithms = {"xxh64", "md5"};

std::string refusedLine(const std::string& path) {
    return "The record names a path outside of the card folder — not opened: " + escapeForDisplay(path);
}

constexpr std::string_view reportDir = Layout::reportDirName;

bool isOfRecords(std::string_view path) {
    const std::string_view top = path.substr(0, path.find('/'));
    return top == Layout::mhlDirName || top == reportDir;
}

// What is to be read, and what the records say beside it.
struct Task {
    std::vector<Expected> files;
    std::set<std::string> known;   // every path that a record names
    std::set<std::string> renamed; // former names of files, by a later generation of the history
    std::vector<std::string> ignore;
};

Task fromHistory(const MHLHistory& history, VerifyResult& result) {
    Task task;
    task.ignore = history.ignore;
    result.basis = "ascmhl";
    result.generations = static_cast<std::int64_t>(history.generations.size());
    result.chainProblems = history.chainProblems; // with the paths that lead out of the folder
    result.reportInsideCard = history.ignoresReportFolder();
    for (const MHLGeneration& generation : history.generations)
        for (const MHLRecord& file : generation.files)
            if (file->previousPath)
                task.renamed.insert(*file->previousPath);
    for (const auto& [path, newest] : history.files) {
        task.known.insert(path);
        ++result.totalFiles;
        result.totalBytes += newest->size.value_or(0);
        MHLRecord record = newest;
        // A file that the card did not give has no digest; its record is one of a failure all the same.
        if (newest->failed() || newest->hashes.empty()) {
            const auto good = history.lastGood.find(path);
            if (good == history.lastGood.end()) {
                result.failedAtCopy.push_back(path);
                continue;
            }
            result.failedSuperseded.push_back(path);
            record = good->second;
        }
        task.files.push_back({path, record->size, record->hashes});
    }
    return task;
}

Task fromLists(std::vector<Expected> listed, VerifyResult& result) {
    Task task;
    result.basis = "hashList";
    for (const Expected& file : listed)
        task.known.insert(file.path);
    result.totalFiles = static_cast<std::int64_t>(listed.size());
    task.files = std::move(listed);
    return task;
}

void noteAlgorithms(const Task& task, VerifyResult& result) {
    for (std::string_view name : HashAlgo::known) {
        const bool used = std::any_of(task.files.begin(), task.files.end(), [&](const Expected& file) {
            return std::any_of(file.hashes.begin(), file.hashes.end(),
                               [&](const MHLHash& hash) { return toLower(hash.algorithm) == name; });
        });
        if (used)
            result.hashAlgorithms.emplace_back(name);
    }
}

// The open generation of a folder, if it has one: by its report, or by what its manifest says beyond the chain.
std::optional<Unfinished> openGeneration(const std::string& cardPath) {
    try {
        return ResumePlanner::find({cardPath});
    } catch (const OffloadError&) {
        return std::nullopt; // one folder cannot disagree with itself
    }
}

// What the open generation of a folder has put there, by path key: not finished, but no stranger. None when no
// generation is open. A report that still waits for its verification tells as well where the manifest is gone.
std::optional<std::unordered_set<std::string>> openFiles(const CardRecord& record) {
    const std::optional<Unfinished> open = openGeneration(record.cardPath);
    if (!open && !record.verifyPending())
        return std::nullopt;
    std::unordered_set<std::string> files = open ? open->mentioned() : std::unordered_set<std::string>();
    for (const CardRecord::Generation& generation : record.generations)
        if (generation.report->verifyPending.value_or(false))
            for (const auto& file : generation.report->files)
                files.insert(pathKey(file.path));
    return files;
}

// How a file stands in this folder by the report: the status word of its column. A folder that was moved to another
// disk or renamed has none; then a copy that any disk got stands for it, since the digest is that of the card.
std::string_view statusOf(const RecordedFile& recorded, const CardRecord& record) {
    const auto& words = recorded.file->destinations;
    if (recorded.file->sourceError)
        return "failed";
    if (const auto column = record.column(*recorded.report))
        return *column < words.size() ? std::string_view(words[*column]) : "failed";
    if (std::ranges::count(words, "verified") == std::ssize(words))
        return "verified";
    const auto isCopy = [](const std::string& word) { return word == "written" || word == "verified"; };
    return std::ranges::any_of(words, isCopy) ? "written" : "failed";
}

// A name or a folder that could not be copied stands in the report of every run that met it, so an older one tells of
// what is over. A run that was broken off tells of what is missing.
bool isOver(const RecordedFile& recorded, const CardRecord& record) {
    const auto& file = *recorded.file;
    const bool brokenOff =
        file.sourceError && (*file.sourceError == "cancelled" || *file.sourceError == "card changed while paused");
    return file.sourceError && !brokenOff && !file.xxh64 &&
           std::ranges::count(file.destinations, "pending") == std::ssize(file.destinations) &&
           std::ranges::any_of(record.generations, [&](const CardRecord::Generation& generation) {
               return generation.generation > recorded.generation && !generation.report->isRepair();
           });
}

// What only the reports record. A copy that was never read back stands in no generation of the ASC MHL, but its digest
// stands in the report: without it a backup made without verification would pass with nothing looked at. Neither does a
// file that never came off the card stand there: without it a backup that broke off would pass for a whole one.
void addFromReports(Task& task, const CardRecord& record, VerifyResult& result) {
    const auto add = [&](const RecordedFile& recorded) {
        const OffloadReport::FileEntry& file = *recorded.file;
        const std::string_view status = statusOf(recorded, record);
        // Verified files are in the ASC MHL; where a generation of it is gone, the chain tells so.
        if (status == "verified" || recorded.report->verifyPending.value_or(false) || isOver(recorded, record) ||
            task.renamed.contains(file.path) || !task.known.insert(file.path).second)
            return;
        ++result.totalFiles;
        result.totalBytes += file.size;
        if (status != "written" || !file.xxh64) {
            result.failedAtCopy.push_back(file.path);
            return;
        }
        task.files.push_back({file.path, file.size, {{"xxh64", *file.xxh64, std::nullopt}}});
        ++result.onlyInReport;
    };
    for (const auto& [key, recorded] : record.files)
        add(recorded);
    for (const auto& [path, recorded] : record.twins)
        if (record.files.at(pathKey(path)).report == recorded.report)
            add(recorded);
    std::ranges::sort(task.files, {}, &Expected::path);
    std::ranges::sort(result.failedAtCopy);
    if (record.error)
        result.chainProblems.push_back("Cannot read the first report: " + *record.error);
    for (const std::string& problem : record.problems)
        result.chainProblems.push_back("Cannot read a report: " + problem);
}

// Reads the files of one folder through one buffer.
class Reading {
public:
    Reading(VerifyResult& result, const Task& task, std::size_t chunkSize, const Progress& progress,
            const IsCancelled& isCancelled)
        : result_(result), task_(task), progress_(progress), isCancelled_(isCancelled),
          buffer_(IO::allocateAligned(chunkSize)) {}

    // False when the folder vanished or the user cancelled.
    bool run() {
        for (const Expected& file : task_.files) {
            if (stopped())
                return false;
            tell(file);
            check(file);
            if (result_.cancelled || result_.folderGone)
                return false;
            ++result_.checked;
        }
        return true;
    }

private:
    struct Digest {
        const MHLHash* recorded;
        std::unique_ptr<RunningHash> running;
    };

    bool stopped() {
        if (!result_.cancelled && isCancelled_ && isCancelled_())
            result_.cancelled = true;
        return result_.cancelled;
    }

    void tell(const Expected& file) {
        if (progress_)
            progress_({file.path, result_.checked, static_cast<std::int64_t>(task_.files.size()), result_.bytesRead,
                       result_.totalBytes});
    }

    void check(const Expected& file) {
        try {
            auto reader = UncachedReader::beneath(result_.cardPath, file.path);
            const std::int64_t size = reader.facts().size;
            if (file.size && *file.size != size) {
                result_.changed.push_back(file.path);
                return;
            }
            compare(reader, file);
        } catch (const IOError& error) {
            // A disk that was pulled would otherwise show as a long list of missing files.
            if (!IO::isFolder(result_.cardPath))
                result_.folderGone = true;
            else if (error.code() == ENOENT || error.code() == ENOTDIR)
                result_.missing.push_back(file.path);
            else
                result_.unreadable.push_back({file.path, error.what()});
        }
    }

    void compare(UncachedReader& reader, const Expected& file) {
        std::vector<Digest> digests;
        for (const MHLHash& hash : file.hashes)
            if (auto running = HashAlgo::make(toLower(hash.algorithm)))
                digests.push_back({&hash, std::move(running)});
        if (digests.empty()) {
            result_.unreadable.push_back({file.path, "the record holds no checksum that Velmora knows"});
            return;
        }
        std::int64_t offset = 0;
        while (const std::size_t got = reader.readAt(buffer_.span(), offset)) {
            for (Digest& digest : digests)
                digest.running->update(buffer_.data(), got);
            offset += static_cast<std::int64_t>(got);
            result_.bytesRead += static_cast<std::int64_t>(got);
            if (stopped())
                return;
            tell(file);
        }
        const bool equal = std::all_of(digests.begin(), digests.end(), [](Digest& digest) {
            return HashAlgo::equal(toLower(digest.recorded->algorithm), digest.recorded->value,
                                   digest.running->value());
        });
        if (equal)
            ++result_.ok;
        else
            result_.changed.push_back(file.path);
    }

    VerifyResult& result_;
    const Task& task_;
    const Progress& progress_;
    const IsCancelled& isCancelled_;
    AlignedBuffer buffer_;
};

// The list of one algorithm: named after the folder, or the only one there when the folder has been renamed since.
std::optional<std::string> readList(const std::string& cardPath, std::string_view algorithm,
                                    std::vector<std::string>& problems) {
    const std::string folder = cardPath + "/" + std::string(reportDir);
    std::string path = folder + "/" + std::string(RelativePath::name(cardPath)) + "." + std::string(algorithm);
    try {
        if (!IO::exists(path)) {
            std::vector<std::string> found;
            for (const IOEntry& entry : IO::list(folder))
                if (entry.isFile() && entry.name.ends_with("." + std::string(algorithm)))
                    found.push_back(entry.name);
            if (found.size() != 1)
                return std::nullopt;
            path = folder + "/" + found.front();
        }
        return IO::readFileBeneath(cardPath, path.substr(cardPath.size() + 1), largestList);
    } catch (const IOError& error) {
        if (error.code() != ENOENT && error.code() != ENOTDIR)
            problems.push_back(std::string("Cannot read a checksum list: ") + error.what());
        return std::nullopt;
    }
}

} // namespace

bool isCardFolder(const std::string& path) { return IO::isFolder(path + "/" + std::string(MHL::dirName)); }

std::vector<std::string> cardFolders(const std::string& path) {
    const std::string folder = RelativePath::withoutTrailingSlash(path);
    if (isCardFolder(folder))
        return {folder};
    std::vector<std::string> found;
    for (const IOEntry& entry : IO::list(folder))
        if (entry.isFolder() && isCardFolder(folder + "/" + entry.name))
            found.push_back(folder + "/" + entry.name);
    std::sort(found.begin(), found.end());
    return found;
}

bool ignored(std::string_view path, const std::vector<std::string>& patterns) {
    return IgnorePatterns(patterns).ignored(path);
}

std::optional<std::vector<Expected>> hashLists(const std::string& cardPath, std::vector<std::string>& problems) {
    std::map<std::string, Expected> files;
    for (std::string_view algorithm : listAlgorithms) {
        const auto list = readList(cardPath, algorithm, problems);
        if (!list)
            continue;
        std::int64_t malformed = 0;
        for (std::string_view line : HashLists::listLines(*list)) {
            const std::size_t gap = line.find("  ");
            if (gap == std::string_view::npos || gap == 0 || gap + 2 == line.size()) {
                malformed += line.empty() ? 0 : 1;
                continue;
            }
            const std::string path(line.substr(gap + 2));
            if (!isSafeRelative(path)) {
                problems.push_back(refusedLine(path));
                continue;
            }
            Expected& file = files[path];
            file.path = path;
            file.hashes.push_back({std::string(algorithm), std::string(line.substr(0, gap)), std::nullopt});
        }
        if (malformed > 0)
            problems.push_back("The " + std::string(algorithm) + " checksum list is damaged: " +
                               counted(malformed, "line holds", "lines hold") + " no checksum.");
    }
    if (files.empty())
        return std::nullopt;
    std::vector<Expected> listed;
    for (auto& [path, file] : files)
        listed.push_back(std::move(file));
    return listed;
}

void addExtra(VerifyResult& result, const std::string& cardPath, const std::set<std::string>& known,
              const std::vector<std::string>& patterns, const IsCancelled& isCancelled) {
    const IgnorePatterns ignore(patterns);
    const SourceScan scan = Scanner::scan(cardPath, isCancelled);
    for (const SourceFile& file : scan.files)
        if (!isOfRecords(file.relPath) && !known.contains(file.relPath) && !ignore.ignored(file.relPath))
            result.extra.push_back(file.relPath);
    for (const UncopiedItem& item : scan.uncopied) {
        if (isOfRecords(item.path) || ignore.ignored(item.path))
            continue;
        if (item.isFolder && isRecordableName(item.path)) // it could not be listed
            result.unreadable.push_back({item.shown, item.error, false});
        else
            result.extra.push_back(item.shown);
    }
    std::sort(result.extra.begin(), result.extra.end());
}

VerifyResult verify(const std::string& cardPath, std::size_t chunkSize, const Progress& progress,
                    const IsCancelled& isCancelled) {
    VerifyResult result;
    result.cardPath = RelativePath::withoutTrailingSlash(cardPath);
    result.started = Timestamp::now();
    if (!IO::isFolder(result.cardPath))
        throw OffloadError::failed("Folder not found: " + result.cardPath);
    const CardRecord record = CardRecord::load(result.cardPath);
    const auto open = openFiles(record);
    result.unfinished = open.has_value();
    const MHLHistory history = MHLReader::read(result.cardPath);
    Task task;
    if (history.exists) {
        task = fromHistory(history, result);
    } else {
        if (auto listed = hashLists(result.cardPath, result.chainProblems))
            task = fromLists(std::move(*listed), result);
        else if (result.unfinished)
            result.basis = "pending";
        else
            throw OffloadError::preflight(PreflightCode::noHashRecord,
                                          result.cardPath +
                                              " has no ASC MHL and no checksum list — nothing to compare against.");
    }
    // Neither the history nor a list names what never arrived.
    addFromReports(task, record, result);
    noteAlgorithms(task, result);
    if (Reading(result, task, chunkSize, progress, isCancelled).run()) {
        try {
            if (open)
                for (const SourceFile& file : Scanner::scan(result.cardPath, isCancelled).files)
                    if (open->contains(pathKey(file.relPath)))
                        task.known.insert(file.relPath);
            addExtra(result, result.cardPath, task.known, task.ignore, isCancelled);
        } catch (const Cancelled&) {
            result.cancelled = true;
        } catch (const std::exception& error) {
            // What hours of reading have found must not be lost to one entry that cannot be looked at.
            if (IO::isFolder(result.cardPath))
                result.unreadable.push_back({".", std::string("looking for extra files: ") + error.what(), false});
            else
                result.folderGone = true;
        }
    }
    result.finished = Timestamp::now();
    return result;
}

} // namespace velmora::BackupVerifier
