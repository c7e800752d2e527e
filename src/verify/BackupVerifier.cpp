#include "verify/BackupVerifier.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "blocks/HashAlgo.h"
#include "blocks/ManifestFile.h"
#include "engine/DestWriter.h"
#include "engine/Layout.h"
#include "engine/Scanner.h"
#include "memory/CardRecord.h"
#include "memory/FolderState.h"
#include "memory/ResumePlanner.h"
#include "mhl/IgnorePatterns.h"
#include "mhl/MHL.h"
#include "mhl/MHLReader.h"
#include "platform/HeldFolder.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"
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
// Limits, as anybody may have written a list: more files than a card has, more digests a file than tools write.
constexpr std::size_t maxListed = 4'000'000;
constexpr std::size_t maxDigests = 16;
constexpr std::int64_t maxRefused = 1000;
constexpr std::string_view reportDir = Layout::reportDirName;

std::string refusedLine(const std::string& path) {
    return "The record names a path outside of the card folder — not opened: " + escapeForDisplay(path);
}

void noteAlgorithms(const VerifyTask& task, VerifyResult& result) {
    for (std::string_view name : HashAlgo::known) {
        const bool used = std::any_of(task.files.begin(), task.files.end(), [&](const Expected& file) {
            return std::any_of(file.hashes.begin(), file.hashes.end(),
                               [&](const MHLHash& hash) { return toLower(hash.algorithm) == name; });
        });
        if (used)
            result.hashAlgorithms.emplace_back(name);
    }
}

// A generation that never got to its end.
struct Open {
    std::int64_t generation = 1;
    bool copyBrokeOff = false;             // no report waits for a verification with the proxies
    std::unordered_set<std::string> files; // what it has put there, by path key: not finished, but no stranger
};

bool isFinal(const OffloadReport& report) {
    return !report.verifyPending.value_or(false) && !report.verifyIncomplete.value_or(false);
}

// Only the newest generation can be open. An older report with the mark keeps it: a run finishes one generation before
// the next. Its files count as copied and not read back, until a later generation records them.
std::optional<Open> openGeneration(const CardRecord& record, const FolderStates& states) {
    std::optional<Unfinished> found;
    std::int64_t committed = 0;
    try {
        found = ResumePlanner::find({record.cardPath}, states);
        committed = states.of(record.cardPath).committed();
    } catch (const OffloadError&) { // a chain that cannot be read is a problem of its own
    }
    const CardRecord::Generation* newest = record.generations.empty() ? nullptr : &record.generations.back();
    const bool waits = newest && !isFinal(*newest->report) && newest->generation >= committed &&
                       (!found || newest->generation == found->generation);
    if (!found && !waits)
        return std::nullopt;
    Open open;
    open.generation = found ? found->generation : newest->generation;
    open.copyBrokeOff = !waits || !newest->report->verifyPending.value_or(false);
    if (found)
        open.files = found->mentioned();
    if (waits)
        for (const auto& file : newest->report->files)
            open.files.insert(pathKey(file.path));
    const std::unordered_set<std::string> whole = open.files;
    for (const std::string& key : whole) // part files of these files are no strangers either
        open.files.insert(pathKey(DestWriter::partName(key)));
    return open;
}

// The serials of the disks that the newest report names are known, and this disk is none of them.
bool isOnOtherDisk(const CardRecord& record) {
    if (!record.volumeSerial || record.generations.empty())
        return false;
    const auto& disks = record.generations.back().report->destinations;
    return std::ranges::all_of(
        disks, [&](const auto& disk) { return disk.volumeSerial && disk.volumeSerial != record.volumeSerial; });
}

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

// Decides what in a card folder is no stranger: the records themselves, and what the histories ignore.
class Accounted {
public:
    explicit Accounted(const std::vector<VerifyTask::Ignore>& ignore) {
        for (const VerifyTask::Ignore& each : ignore) {
            // By the rules of the patterns a name counts at any depth. The folders of this program stand at the top:
            // below it, one of their names is a folder of the card, and what lies in it is in the record or a stranger.
            std::vector<std::string> own;
            std::vector<std::string> general;
            for (const std::string& pattern : each.patterns)
                (isOwn(pattern) ? own : general).push_back(pattern);
            below_.push_back({each.folder, IgnorePatterns(general), IgnorePatterns(own)});
        }
        if (below_.empty())
            below_.push_back({"", IgnorePatterns({}), IgnorePatterns({})});
    }

    bool operator()(std::string_view path) const {
        return std::ranges::any_of(below_, [&](const Below& each) {
            if (!each.folder.empty() && !(path.starts_with(each.folder + "/")))
                return false;
            const std::string_view inner = each.folder.empty() ? path : path.substr(each.folder.size() + 1);
            const std::string_view top = inner.substr(0, inner.find('/'));
            return top == Layout::mhlDirName || (each.folder.empty() && top == reportDir) || each.own.ignored(top) ||
                   each.general.ignored(inner);
        });
    }

private:
    struct Below {
        std::string folder;
        IgnorePatterns general;
        IgnorePatterns own;
    };
    static bool isOwn(std::string_view pattern) {
        const std::string_view name = pattern.ends_with('/') ? pattern.substr(0, pattern.size() - 1) : pattern;
        return name == Layout::mhlDirName || name == reportDir || name == Layout::proxyDirName;
    }
    std::vector<Below> below_;
};

} // namespace

bool isCardFolder(const std::string& path) { return IO::isFolder(path + "/" + std::string(MHL::dirName)); }

bool hasRecords(const std::string& path) {
    const std::string reports = path + "/" + std::string(reportDir);
    try {
        if (isCardFolder(path))
            return true;
        return std::ranges::any_of(IO::list(reports), [](const IOEntry& entry) {
            return CardRecord::numberedFile(entry.name) || entry.name == ManifestFile::fileName ||
                   std::ranges::any_of(listAlgorithms, [&](std::string_view algorithm) {
                       return entry.name.ends_with("." + std::string(algorithm));
                   });
        });
    } catch (const IOError& error) {
        // A folder of which the records cannot be listed still counts as a card. Its check says what is wrong.
        return error.code() != ENOENT && error.code() != ENOTDIR;
    }
}

std::vector<std::string> cardFolders(const std::string& path) {
    const std::string folder = RelativePath::withoutTrailingSlash(path);
    if (hasRecords(folder))
        return {folder};
    std::vector<std::string> found;
    for (const IOEntry& entry : IO::list(folder))
        if (entry.isFolder() && hasRecords(folder + "/" + entry.name))
            found.push_back(folder + "/" + entry.name);
    std::sort(found.begin(), found.end());
    return found;
}

bool ignored(std::string_view path, const std::vector<std::string>& patterns) {
    return IgnorePatterns(patterns).ignored(path);
}

std::optional<std::vector<Expected>> hashLists(const std::string& cardPath, std::vector<std::string>& problems,
                                               const IsCancelled& isCancelled) {
    std::map<std::string, Expected> files;
    for (std::string_view algorithm : listAlgorithms) {
        const auto list = readList(cardPath, algorithm, problems);
        if (!list)
            continue;
        std::int64_t malformed = 0;
        std::int64_t refused = 0;
        std::size_t seen = 0;
        for (std::string_view line : HashLists::listLines(*list)) {
            if (++seen % 10'000 == 0 && isCancelled && isCancelled())
                throw Cancelled();
            const std::size_t gap = line.find("  ");
            if (gap == std::string_view::npos || gap == 0 || gap + 2 == line.size()) {
                malformed += line.empty() ? 0 : 1;
                continue;
            }
            const std::string path(line.substr(gap + 2));
            if (!isSafeRelative(path)) {
                if (++refused <= maxRefused)
                    problems.push_back(refusedLine(path));
                continue;
            }
            if (files.size() >= maxListed && !files.contains(path)) {
                problems.push_back("The " + std::string(algorithm) +
                                   " checksum list is too long — the rest of it was not read.");
                break;
            }
            Expected& file = files[path];
            file.path = path;
            if (file.hashes.size() >= maxDigests) {
                ++malformed;
                continue;
            }
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

void addExtra(VerifyResult& result, const SourceScan& scan, const std::set<std::string>& known,
              const std::vector<VerifyTask::Ignore>& ignore) {
    const Accounted accounted(ignore);
    for (const SourceFile& file : scan.files)
        if (!known.contains(file.relPath) && !accounted(file.relPath))
            result.extra.push_back(file.relPath);
    for (const UncopiedItem& item : scan.uncopied) {
        if (accounted(item.path))
            continue;
        if (item.isFolder && isRecordableName(item.path)) // it could not be listed
            result.unreadable.push_back({item.shown, item.error, false});
        else
            result.extra.push_back(item.shown);
    }
    std::sort(result.extra.begin(), result.extra.end());
}

VerifyResult verify(const std::string& cardPath, std::size_t chunkSize, const Progress& progress,
                    const IsCancelled& isCancelled, PauseGate::Worker* pausing) {
    VerifyResult result;
    result.cardPath = RelativePath::withoutTrailingSlash(cardPath);
    result.started = Timestamp::now();
    if (!IO::isFolder(result.cardPath))
        throw OffloadError::failed("Folder not found: " + result.cardPath);
    if (VolumeFacts::awaitsVolume(result.cardPath))
        throw OffloadError::preflight(PreflightCode::destinationNotFound,
                                      "Folder not found: " + result.cardPath + " — is the drive connected?");
    // Held open, so that another disk which comes to the same path meanwhile is not taken for this one.
    const HeldFolder held(result.cardPath);
    const auto isThere = [&] {
        try {
            held.check();
            return true;
        } catch (const IOError&) {
            return false;
        }
    };
    const auto finish = [&] {
        result.finished = Timestamp::now();
        return std::move(result);
    };
    const FolderStates states(isCancelled);
    FolderState& folder = states.of(result.cardPath);
    CardRecord record;
    std::optional<Open> open;
    VerifyTask task;
    try {
        record = CardRecord::load(folder);
        result.volumeSerial = record.volumeSerial;
        result.onOtherDisk = isOnOtherDisk(record);
        open = openGeneration(record, states);
        result.unfinished = open.has_value();
        result.copyBrokeOff = open && open->copyBrokeOff;
        if (const auto history = folder.history(); history->exists)
            task = VerifyTask::fromHistory(*history, NestedHistories::read(result.cardPath, *history, isCancelled),
                                           result);
        else if (auto listed = hashLists(result.cardPath, result.chainProblems, isCancelled))
            task = VerifyTask::fromLists(std::move(*listed), result);
        else if (result.unfinished)
            result.basis = "pending";
        else if (!result.chainProblems.empty())
            throw OffloadError::failed(result.chainProblems.front()); // there is a list, but it yields no file
        else if (ResumePlanner::chainLost(folder)) {
            result.basis = "report";
            result.chainProblems.emplace_back("The ASC MHL and the checksum lists are gone — the files were compared "
                                              "with the digests in the report.");
        } else
            throw OffloadError::preflight(PreflightCode::noHashRecord,
                                          result.cardPath +
                                              " has no ASC MHL and no checksum list — nothing to compare against.");
    } catch (const Cancelled&) {
        result.cancelled = true;
        return finish();
    }
    // A file that never arrived is in neither the history nor a list; only a report names it.
    task.addFromReports(record, open ? std::optional(open->generation) : std::nullopt, result);
    noteAlgorithms(task, result);
    if (FileChecks::run(result, task, chunkSize, isThere, progress, isCancelled, pausing)) {
        try {
            const SourceScan scan = Scanner::scan(result.cardPath, isCancelled);
            if (open)
                for (const SourceFile& file : scan.files)
                    if (open->files.contains(pathKey(file.relPath)))
                        task.known.insert(file.relPath);
            addExtra(result, scan, task.known, task.ignore);
        } catch (const Cancelled&) {
            result.cancelled = true;
        } catch (const std::exception& error) {
            // What hours of reading have found must not be lost to one entry that cannot be looked at.
            if (isThere())
                result.unreadable.push_back({".", std::string("looking for extra files: ") + error.what(), false});
            else
                result.folderGone = true;
        }
    }
    result.folderGone = result.folderGone || !isThere();
    return finish();
}

} // namespace velmora::BackupVerifier
