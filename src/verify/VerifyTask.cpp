#include "verify/VerifyTask.h"

#include "base/Text.h"

#include <algorithm>

namespace velmora {

namespace {

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

// A file that could not be copied is listed by each run that met it, so the newest report decides. A run that was
// broken off lists what is missing.
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

} // namespace

void VerifyTask::addHistory(const std::string& folder, const MHLHistory& history, VerifyResult& result,
                            std::map<std::string, Expected>& expected) {
    const auto inCard = [&](const std::string& path) { return folder.empty() ? path : folder + "/" + path; };
    ignore.push_back({folder, history.ignore});
    for (const MHLGeneration& generation : history.generations)
        for (const MHLRecord& file : generation.files)
            if (file->previousPath)
                renamed.insert(inCard(*file->previousPath));
    for (const auto& [path, newest] : history.files) {
        const std::string full = inCard(path);
        if (known.insert(full).second) {
            ++result.totalFiles;
            result.totalBytes += newest->size.value_or(0);
        }
        MHLRecord record = newest;
        // A file that the card did not give has no digest; its record is one of a failure all the same.
        if (newest->failed() || newest->hashes.empty()) {
            const auto good = history.lastGood.find(path);
            if (good == history.lastGood.end()) {
                result.failedAtCopy.push_back(full);
                continue;
            }
            result.failedSuperseded.push_back(full);
            record = good->second;
        }
        // Two histories may name one file. Then what both say must hold.
        Expected& file = expected[full];
        file.path = full;
        file.size = file.size ? file.size : record->size;
        file.hashes.insert(file.hashes.end(), record->hashes.begin(), record->hashes.end());
    }
}

VerifyTask VerifyTask::fromHistory(const MHLHistory& history, const NestedHistories& nested, VerifyResult& result) {
    VerifyTask task;
    result.basis = "ascmhl";
    result.generations = static_cast<std::int64_t>(history.generations.size());
    result.nestedHistories = static_cast<std::int64_t>(nested.found.size());
    result.chainProblems = history.chainProblems; // also names the paths that lead out of the folder
    result.chainProblems.insert(result.chainProblems.end(), nested.problems.begin(), nested.problems.end());
    result.reportInsideCard = history.ignoresReportFolder();
    std::map<std::string, Expected> expected;
    task.addHistory("", history, result, expected);
    for (const NestedHistory& each : nested.found)
        task.addHistory(each.folder, each.history, result, expected);
    for (const std::string& folder : nested.unread)
        task.ignore.push_back({folder, {}}); // the files of that history are no strangers
    for (auto& [path, file] : expected)
        task.files.push_back(std::move(file));
    return task;
}

VerifyTask VerifyTask::fromLists(std::vector<Expected> listed, VerifyResult& result) {
    VerifyTask task;
    result.basis = "hashList";
    for (const Expected& file : listed)
        task.known.insert(file.path);
    result.totalFiles = static_cast<std::int64_t>(listed.size());
    task.files = std::move(listed);
    return task;
}

void VerifyTask::addFromReports(const CardRecord& record, std::optional<std::int64_t> open, VerifyResult& result) {
    const auto add = [&](const RecordedFile& recorded) {
        const OffloadReport::FileEntry& file = *recorded.file;
        const std::string_view status = statusOf(recorded, record);
        // Verified files are in the ASC MHL or a list, where there is one; where a generation is gone, the chain tells.
        const bool listed = status == "verified" && result.basis != "report";
        if (listed || recorded.generation == open || isOver(recorded, record) || renamed.contains(file.path) ||
            !known.insert(file.path).second)
            return;
        ++result.totalFiles;
        result.totalBytes += file.size;
        if ((status != "written" && status != "verified") || !file.xxh64) {
            result.failedAtCopy.push_back(file.path);
            return;
        }
        files.push_back({file.path, file.size, {{"xxh64", *file.xxh64, std::nullopt}}});
        result.onlyInReport += status == "written" ? 1 : 0;
    };
    for (const auto& [key, recorded] : record.files)
        add(recorded);
    for (const auto& [path, recorded] : record.twins)
        if (record.files.at(pathKey(path)).report == recorded.report)
            add(recorded);
    std::ranges::sort(files, {}, &Expected::path);
    std::ranges::sort(result.failedAtCopy);
    if (record.error)
        result.chainProblems.push_back("Cannot read the first report: " + *record.error);
    for (const std::string& problem : record.problems)
        result.chainProblems.push_back("Cannot read a report: " + problem);
}

} // namespace velmora
