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

// What is to be read, and what the records say beside it.
struct Task {
    std::vector<Expected> files;
    std::set<std::string> known; // every path that a record names
    std::vector<std::string> ignore;
};

Task fromHistory(const MHLHistory& history, VerifyResult& result) {
    Task task;
    task.ignore = history.ignore;
    result.basis = "ascmhl";
    result.generations = static_cast<std::int64_t>(history.generations.size());
    result.chainProblems = history.chainProblems; // with the paths that lead out of the folder
    result.reportInsideCard = history.ignoresReportFolder();
    for (const auto& [path, newest] : history.files) {
        task.known.insert(path);
        ++result.totalFiles;
        result.totalBytes += newest->size.value_or(0);
        MHLRecord record = newest;
        if (newest->failed()) {
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

Task fromLists(std::vector<Expected> listed, const std::vector<std::string>& refused, VerifyResult& result) {
    Task task;
    result.basis = "hashList";
    for (const std::string& path : refused)
        result.chainProblems.push_back(refusedLine(path));
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

// A copy that was never read back stands in no generation of the ASC MHL, but its digest stands in the report: without
// it a backup made without verification would pass with nothing looked at.
void addFromReports(Task& task, const CardRecord& record, VerifyResult& result) {
    for (const auto& [key, recorded] : record.files) {
        const OffloadReport::FileEntry& file = *recorded.file;
        const auto column = CardRecord::columnOf(*recorded.report, record.cardPath, record.volumeSerial);
        const bool written =
            column && *column < file.destinations.size() && file.destinations[*column] == "written" && file.xxh64;
        if (!written || recorded.report->verifyPending.value_or(false) || task.known.contains(file.path))
            continue;
        task.known.insert(file.path);
        task.files.push_back({file.path, file.size, {{"xxh64", *file.xxh64, std::nullopt}}});
        ++result.totalFiles;
        result.totalBytes += file.size;
        ++result.onlyInReport;
    }
    std::ranges::sort(task.files, {}, &Expected::path);
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
std::optional<std::string> readList(const std::string& cardPath, std::string_view algorithm) {
    const std::string folder = cardPath + "/" + std::string(Layout::reportDirName);
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
        return IO::readFile(path, largestList);
    } catch (const IOError&) {
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

std::optional<std::vector<Expected>> hashLists(const std::string& cardPath, std::vector<std::string>& refused) {
    std::map<std::string, Expected> files;
    bool any = false;
    for (std::string_view algorithm : listAlgorithms) {
        const auto list = readList(cardPath, algorithm);
        if (!list)
            continue;
        any = true;
        for (std::string_view line : HashLists::listLines(*list)) {
            const std::size_t gap = line.find("  ");
            if (gap == std::string_view::npos || gap == 0)
                continue;
            const std::string path(line.substr(gap + 2));
            if (!isSafeRelative(path)) {
                refused.push_back(path);
                continue;
            }
            Expected& file = files[path];
            file.path = path;
            file.hashes.push_back({std::string(algorithm), std::string(line.substr(0, gap)), std::nullopt});
        }
    }
    if (!any)
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
    for (const SourceFile& file : scan.files) {
        const std::string_view top = std::string_view(file.relPath).substr(0, file.relPath.find('/'));
        if (top == Layout::mhlDirName || top == Layout::reportDirName || known.contains(file.relPath) ||
            ignore.ignored(file.relPath))
            continue;
        result.extra.push_back(file.relPath);
    }
    for (const UncopiedItem& item : scan.uncopied)
        result.extra.push_back(item.shown);
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
        addFromReports(task, record, result);
    } else {
        std::vector<std::string> refused;
        if (auto listed = hashLists(result.cardPath, refused))
            task = fromLists(std::move(*listed), refused, result);
        else if (result.unfinished)
            result.basis = "pending";
        else
            throw OffloadError::preflight(PreflightCode::noHashRecord,
                                          result.cardPath +
                                              " has no ASC MHL and no checksum list — nothing to compare against.");
    }
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
        } catch (const IOError&) {
            if (IO::isFolder(result.cardPath))
                throw;
            result.folderGone = true;
        }
    }
    result.finished = Timestamp::now();
    return result;
}

} // namespace velmora::BackupVerifier
