#include "memory/AppendPlanner.h"

#include "base/Msg.h"
#include "base/Product.h"
#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "disks/VolumeSerial.h"
#include "memory/BackupPlaces.h"
#include "memory/HistoryRecords.h"
#include "memory/ResumePlanner.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "records/OffloadPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

// Whether the folders of a backup can be worked on together: each is whole, and all are in step.
namespace velmora::AppendPlanner {

namespace {

OffloadError refuse(PreflightCode code, const std::string& text) { return OffloadError::preflight(code, text); }

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

CardRecord loadRecord(FolderState& folder, std::optional<std::int64_t> unfinished) {
    const std::string& path = folder.cardPath();
    requireFolder(path);
    CardRecord record = CardRecord::load(folder, unfinished ? std::optional(*unfinished - 1) : std::nullopt);
    if (record.reportMissing)
        throw refuse(
            PreflightCode::appendNoReport,
            fmt::format("{} has no report of the earlier backup (_REPORT/offload_report.json) — cannot append.", path));
    if (record.error || !record.problems.empty())
        throw refuse(
            PreflightCode::other,
            fmt::format("Cannot read the report of the earlier backup in {} ({}) — cannot "
                        "append. A report that another disk of the backup still has is made anew by Repair ({} "
                        "repair) into all of them.",
                        path, record.error ? *record.error : record.problems.front(), Product::cli));
    return record;
}

// The last generation of the chain, not counting the one in progress.
std::int64_t lastMhlGeneration(FolderState& folder, std::optional<std::int64_t> unfinished) {
    const std::string& path = folder.cardPath();
    const auto damaged = [&] {
        return refuse(
            PreflightCode::appendMhlDamaged,
            fmt::format("The ASC MHL history in {} is damaged — check it with {}; cannot append.", path, verifyHint));
    };
    std::shared_ptr<const MHLHistory> read;
    try {
        read = folder.history();
    } catch (const MHLFormatError&) {
        throw damaged();
    }
    const MHLHistory& history = *read;
    // A run that dies in generation 1 may leave no chain.
    const bool firstIsOpen = unfinished == 1;
    if (!history.chainRead && !firstIsOpen && !history.exists)
        throw refuse(
            PreflightCode::appendNoMhl,
            fmt::format("{} has no ASC MHL (ascmhl/ascmhl_chain.xml) — cannot append. Make a full copy.", path));
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

} // namespace

ResumePlanner::Findings lookAt(const std::vector<std::string>& paths, const FolderStates& folders) {
    try {
        return ResumePlanner::look(paths, folders);
    } catch (const OffloadError&) {
        for (const std::string& path : paths)
            requireFolder(path); // a missing disk is the one that is behind
        for (const std::string& path : paths)
            if (ResumePlanner::chainLost(folders.of(path)))
                lastMhlGeneration(folders.of(path),
                                  std::nullopt); // throws: a disk that lost its history must not be called behind
        throw;
    }
}

bool isOpenRepair(const Unfinished& unfinished, const std::vector<CardRecord>& records) {
    if (unfinished.report)
        return unfinished.report->isRepair();
    if (unfinished.mode)
        return unfinished.mode == name(PlanMode::repair);
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

std::vector<PastRun> pastRuns(const std::vector<HistoryEntry>& entries, const std::vector<std::string>& cardPaths) {
    std::vector<PastRun> runs;
    for (const HistoryEntry* entry : HistoryRecords::entriesOfName(entries, cardPaths)) {
        if (HistoryRecords::holdsNothing(*entry))
            continue;
        PastRun& run = runs.emplace_back();
        run.finished = entry->finished;
        for (const HistoryDestination& destination : entry->destinations)
            run.places.push_back({destination.cardPath, std::nullopt});
    }
    return runs;
}

std::vector<BackupPlace> elsewhere(const std::vector<CardRecord>& records, const ResumePlanner::Findings& found,
                                   const std::vector<PastRun>& pastRuns, const FolderStates& folders) {
    // A record of the history that is older than the backup is about an earlier one in folders of these names.
    constexpr double slack = 86400;
    std::optional<Timestamp> began;
    for (const CardRecord& record : records)
        if (!record.generations.empty() && (!began || record.started() < *began))
            began = record.started();
    std::vector<std::vector<BackupPlace>> runs;
    for (const PastRun& run : pastRuns)
        if (!began || secondsBetween(run.finished, *began) < slack)
            runs.push_back(run.places);
    return BackupPlaces::beside(records, found.places, std::move(runs), folders);
}

// Cameras with unset clocks and files of one size make cards that no name, size or time tells apart: only the medium
// does.
bool sameMedium(const std::vector<CardRecord>& records, const ResumePlanner::Findings& found,
                const std::optional<CardKey>& now, const std::optional<CardKey>& inHistory) {
    std::optional<CardKey> then = inHistory;
    for (const CardRecord& record : records)
        for (const auto& generation : record.generations)
            if (generation.report->sourceMedium)
                then = generation.report->sourceMedium;
    if (found.medium)
        then = found.medium;
    if (!then || !now)
        return false;
    if (*then != *now)
        throw refuse(PreflightCode::appendOtherCard,
                     fmt::format("The card in the reader is another one than the backup was made from (its volume is "
                                 "{}, {}; that of the backup {}, {}). Make a full copy.",
                                 now->fsSerial, formatBytes(now->capacity), then->fsSerial,
                                 formatBytes(then->capacity)));
    return true;
}

std::optional<OffloadReport> settleable(const std::optional<Unfinished>& unfinished,
                                        const std::vector<std::string>& paths) {
    const auto result = unfinished ? unfinished->result() : nullptr;
    if (!result)
        return std::nullopt;
    OffloadReport report = *result;
    for (const std::string& given : paths) {
        const std::string path = RelativePath::withoutTrailingSlash(given);
        const auto column = CardRecord::columnOf(*result, path, VolumeFacts::volumeSerialText(path));
        if (!column)
            return std::nullopt;
        report.destinations[*column].cardPath = path; // where its disk is mounted today
        report.destinations[*column].root = RelativePath::folder(RelativePath::folder(path));
    }
    report.verifyIncomplete.reset();
    return report;
}

OffloadReport settleLagging(const ResumePlanner::Findings::Lagging& lagging) {
    auto report = settleable(lagging.unfinished, lagging.cardPaths);
    if (!report)
        throw ResumePlanner::behind(lagging.cardPaths.front(), lagging.unfinished.generation);
    return std::move(*report);
}

Backup checkBackup(const std::vector<std::string>& paths, std::optional<std::int64_t> unfinishedGeneration,
                   const FolderStates& folders) {
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
        FolderState& folder = folders.of(backup.paths[d]);
        CardRecord record = loadRecord(folder, unfinishedGeneration);
        const std::int64_t generation = lastMhlGeneration(folder, unfinishedGeneration);
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
    if (std::adjacent_find(generations.begin(), generations.end(), std::not_equal_to<>()) != generations.end()) {
        const auto [least, most] = std::ranges::minmax_element(generations);
        const auto lowest = least - generations.begin();
        const std::string times =
            *most - *least > 1
                ? fmt::format(" Each such run brings it on by one of the {} generations that it lacks.", *most - *least)
                : "";
        throw refuse(
            PreflightCode::appendDiverged,
            fmt::format(
                "The backups on the destinations differ ({}) — check them with {}; cannot append. {} Where nothing "
                "is new for it, add --compare.{}",
                generationList(backup.paths, generations), verifyHint,
                Msg::behindOthers(backup.paths[static_cast<std::size_t>(lowest)]), times));
    }
    backup.nextGeneration = unfinishedGeneration.value_or(generations.front() + 1);
    if (unfinishedGeneration && generations.front() != *unfinishedGeneration - 1)
        throw ResumePlanner::behind(backup.paths.front(), *unfinishedGeneration);
    return backup;
}

} // namespace velmora::AppendPlanner
