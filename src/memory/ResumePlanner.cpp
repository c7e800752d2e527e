#include "memory/ResumePlanner.h"

#include "base/Msg.h"
#include "base/SideBySide.h"
#include "base/Text.h"
#include "blocks/ManifestFile.h"
#include "engine/Layout.h"
#include "memory/AppendPlanner.h"
#include "memory/BackupFolder.h"
#include "memory/CardRecord.h"
#include "mhl/MHL.h"
#include "mhl/MHLProblems.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "records/OffloadPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>

namespace velmora::ResumePlanner {

namespace {

std::shared_ptr<const OffloadReport> readReport(FolderState& folder, std::int64_t number) {
    try {
        return folder.report(number);
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception&) {
        return nullptr;
    }
}

bool isOpen(const OffloadReport& report) {
    return report.verifyPending.value_or(false) || report.verifyIncomplete.value_or(false);
}

// What one folder tells.
struct State {
    std::int64_t committed = 0;
    bool chainLost = false;
    std::optional<std::int64_t> open;
    std::vector<ManifestRecord> lines;           // of files and parts, above `committed` or of the open generation
    std::vector<ManifestRecord> runs;            // first lines of runs, of all generations
    std::shared_ptr<const OffloadReport> report; // of the open or the last committed generation, if it can be read
};

bool isEmptyFolder(const FolderState& folder) {
    try {
        return IO::isFolder(folder.cardPath()) && BackupFolder(folder.cardPath(), folder.isCancelled()).files().empty();
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception&) {
        return false;
    }
}

// A copy is open from its first manifest line, since its files wait for their lines until a flush. A repair is open
// only from its first file line: before it nothing was changed.
bool isBegun(const ManifestRecord& line) {
    return line.kind != ManifestRecord::runKind || line.mode != name(PlanMode::repair);
}

State stateOf(FolderState& folder) {
    State state;
    state.committed = folder.committed();
    state.chainLost = chainLost(folder);
    if (state.chainLost)
        return state; // its lines are not those of a run that died
    std::int64_t highest = state.committed;
    if (state.committed > 0)
        state.report = readReport(folder, state.committed);
    const bool lastIsOpen = state.report && isOpen(*state.report);
    const std::int64_t lowest = lastIsOpen ? state.committed : state.committed + 1;
    bool anyLine = false;
    ManifestFile::forEach(folder.cardPath(), [&](ManifestRecord&& line) {
        folder.stopIfCancelled();
        anyLine = true;
        const bool isRun = line.kind == ManifestRecord::runKind;
        if (line.gen >= lowest && isBegun(line))
            highest = std::max(highest, line.gen);
        if (isRun || line.gen >= lowest)
            (isRun ? state.runs : state.lines).push_back(std::move(line));
        return true;
    });
    if (highest > state.committed) {
        state.open = highest;
        state.report = readReport(folder, highest);
    } else if (auto report = readReport(folder, state.committed + 1); report && isOpen(*report)) {
        state.open = state.committed + 1;
        state.report = std::move(report);
    } else if (lastIsOpen) {
        state.open = state.committed;
    } else if (state.committed == 0 && !anyLine && isEmptyFolder(folder)) {
        state.open = 1;
    }
    return state;
}

// The generation is open on the disk, or the run never got to it.
bool isAt(const State& state, std::int64_t open) {
    return state.open ? state.open == open : !state.chainLost && state.committed == open - 1;
}

// The disk has the generation for good.
bool isPast(const State& state, std::int64_t open) { return !isAt(state, open) && state.committed >= open; }

// The generation as it lies in some of the folders.
Unfinished gather(const std::vector<std::string>& paths, const std::vector<State>& states,
                  const std::vector<std::size_t>& folders, std::int64_t open) {
    Unfinished unfinished;
    unfinished.generation = open;
    for (const std::size_t d : folders) {
        const State& state = states[d];
        // Final there: its lines were passed over.
        auto lines = !state.open && state.committed == open ? ManifestFile::read(paths[d]) : state.lines;
        std::erase_if(lines, [&](const ManifestRecord& line) { return line.gen != open; });
        unfinished.files.push_back(ManifestFile::files(lines, open));
        unfinished.parts.push_back(ManifestFile::parts(lines, open));
        unfinished.manifests.push_back(std::move(lines));
        const bool isOfIt = state.report && state.report->generationNumber() == open;
        unfinished.reports.push_back(isOfIt ? state.report : nullptr);
        // The finishing run builds on a marked report rather than on a final one, then on the newer one.
        const auto rank = [](const OffloadReport& report) { return std::pair(isOpen(report), report.finished); };
        if (isOfIt && (!unfinished.report || rank(*unfinished.report) < rank(*state.report)))
            unfinished.report = state.report;
        // No report forgets a file that another disk's report of the generation names.
        if (isOfIt && !unfinished.fixedFiles)
            unfinished.fixedFiles.emplace();
        if (isOfIt)
            for (const auto& file : state.report->files)
                unfinished.fixedFiles->insert(pathKey(file.path));
        for (const ManifestRecord& run : state.runs)
            if (run.gen == open)
                unfinished.mode = run.mode;
    }
    return unfinished;
}

// What a run has found against the card is told on every disk, also on those that its end did not reach. Its promise is
// not passed on: nobody has looked at the card since.
std::shared_ptr<const OffloadReport> withNotesOf(const OffloadReport& final, const OffloadReport& marked) {
    auto report = std::make_shared<OffloadReport>(marked);
    if (final.started == marked.started && final.finished == marked.finished)
        report->verifyNotes = final.verifyNotes;
    return report;
}

bool sameContent(const ManifestRecord& a, const ManifestRecord& b) {
    return a.xxh64 == b.xxh64 && a.blockSize == b.blockSize && a.blocks == b.blocks;
}

// The record that all agree on, or none. A record that holds no usable hashes proves nothing.
const ManifestRecord* commonRecord(const std::vector<const ManifestRecord*>& records) {
    for (const ManifestRecord* record : records)
        if (!record || !record->toManifest() || !record->xxh64Value() || !sameContent(*record, *records.front()))
            return nullptr;
    return records.empty() ? nullptr : records.front();
}

} // namespace

std::int64_t committed(const std::string& cardPath) {
    std::vector<std::string> problems;
    const auto chain = MHLReader::readChain(cardPath + "/" + std::string(MHL::dirName), problems);
    for (const std::string& problem : problems)
        if (problem != MHLProblems::chainMissing())
            throw OffloadError::preflight(
                PreflightCode::appendMhlDamaged,
                fmt::format("The ASC MHL history in {} is damaged — check it with {}; cannot append. {}", cardPath,
                            AppendPlanner::verifyHint, problem));
    std::int64_t highest = 0;
    for (const MHLChainEntry& entry : chain)
        highest = std::max(highest, entry.seq);
    return highest;
}

bool chainLost(FolderState& folder) {
    if (folder.committed() > 0)
        return false;
    std::int64_t last = 0;
    try {
        for (const IOEntry& entry : IO::list(folder.cardPath() + "/" + std::string(Layout::reportDirName)))
            last = std::max(last, CardRecord::numberedFile(entry.name).value_or(0));
    } catch (const IOError&) {
        return false; // then nothing proves that a generation was finished
    }
    const auto report = last > 0 ? readReport(folder, last) : nullptr;
    return report && !isOpen(*report);
}

OffloadError behind(const std::string& cardPath, std::int64_t generation) {
    return OffloadError::preflight(PreflightCode::appendDiverged,
                                   VIPMsg::resumeDiverged(AppendPlanner::disk(cardPath), generation) + " " +
                                       Msg::behindOthers(cardPath));
}

std::string reportPath(const std::string& cardPath, std::int64_t generation) {
    return cardPath + "/" + std::string(Layout::reportDirName) + "/" + OffloadReport::jsonName(generation);
}

Findings look(const std::vector<std::string>& paths, const FolderStates& folders) {
    std::vector<State> states = sideBySide(paths.size(), [&](std::size_t d) { return stateOf(folders.of(paths[d])); });
    Findings found;
    std::optional<std::int64_t> open;
    for (const State& state : states) {
        if (state.open)
            open = std::min(open.value_or(*state.open), *state.open);
        for (const ManifestRecord& run : state.runs) {
            std::ranges::copy(run.destinations, std::back_inserter(found.places));
            if (run.sourceMedium)
                found.medium = run.sourceMedium;
        }
        if (state.open && state.report) {
            for (const auto& destination : state.report->destinations)
                found.places.push_back({destination.cardPath, destination.volumeSerial});
            std::ranges::copy(state.report->elsewhere, std::back_inserter(found.places));
        }
    }
    if (!open)
        return found;
    std::vector<std::size_t> group;
    std::vector<std::size_t> past;
    for (std::size_t d = 0; d < paths.size(); ++d) {
        if (!isAt(states[d], *open) && !isPast(states[d], *open))
            throw behind(paths[d], *open);
        (isAt(states[d], *open) ? group : past).push_back(d);
    }
    Unfinished unfinished = gather(paths, states, group, *open);
    if (past.empty()) {
        found.unfinished = std::move(unfinished);
        return found;
    }
    const bool nextDoor = std::ranges::all_of(past, [&](auto d) { return states[d].committed == *open; });
    if (nextDoor && unfinished.result()) {
        for (const std::size_t d : past)
            if (states[d].report)
                unfinished.report = withNotesOf(*states[d].report, *unfinished.report);
        found.lagging.emplace().unfinished = std::move(unfinished);
        for (const std::size_t d : group)
            found.lagging->cardPaths.push_back(paths[d]);
        return found;
    }
    std::vector<std::size_t> all(paths.size());
    std::iota(all.begin(), all.end(), std::size_t{0});
    const bool joins = std::ranges::all_of(past, [&](auto d) { return !states[d].open && states[d].report; });
    if (nextDoor && joins) {
        Unfinished whole = gather(paths, states, all, *open);
        const auto held = unfinished.mentioned();
        if (std::ranges::all_of(held, [&](const auto& key) { return whole.fixedFiles->contains(key); })) {
            found.unfinished = std::move(whole);
            return found;
        }
    }
    const auto lowest = std::ranges::find_if(states, [&](const State& state) { return state.open == open; });
    throw behind(paths[static_cast<std::size_t>(lowest - states.begin())], *open);
}

std::optional<Unfinished> find(const std::vector<std::string>& paths, const FolderStates& folders) {
    return look(paths, folders).unfinished;
}

std::optional<PartCheckpoint> commonCheckpoint(const Unfinished& unfinished, const SourceFile& file,
                                               const std::vector<bool>& write, bool localTime, std::int64_t blockSize) {
    std::optional<PartCheckpoint> common;
    for (std::size_t d = 0; d < write.size(); ++d) {
        if (!write[d])
            continue;
        const PartCheckpoint* part = unfinished.partOf(d, file, localTime);
        if (!part || part->blockSize != blockSize)
            return std::nullopt;
        if (!common) {
            common = *part;
            continue;
        }
        const auto [mine, theirs] =
            std::mismatch(common->blocks.begin(), common->blocks.end(), part->blocks.begin(), part->blocks.end());
        common->blocks.erase(mine, common->blocks.end());
    }
    if (common) {
        // A checkpoint never reaches beyond the whole blocks of the file.
        const auto whole = static_cast<std::size_t>(file.size / blockSize);
        if (common->blocks.size() > whole)
            common->blocks.resize(whole);
        if (common->blocks.empty())
            return std::nullopt;
    }
    return common;
}

std::vector<FileTask> decide(const Unfinished& unfinished, const std::vector<SourceFile>& files,
                             const SizeOnDisk& sizeOnDisk, bool localTime, std::int64_t blockSize) {
    const std::size_t destinations = unfinished.files.size();
    std::vector<FileTask> tasks;
    for (const SourceFile& file : files) {
        FileTask& task = tasks.emplace_back();
        std::vector<const ManifestRecord*> records;
        task.write.assign(destinations, false);
        for (std::size_t d = 0; d < destinations; ++d) {
            const ManifestRecord* record = unfinished.fileOf(d, file, localTime);
            if (record && sizeOnDisk(d, file) == file.size)
                records.push_back(record);
            else
                task.write[d] = true;
        }
        if (const ManifestRecord* record = commonRecord(records))
            task.known = *record;
        else if (!records.empty())
            task.write.assign(destinations, true);
        const bool complete = task.known && records.size() == destinations;
        if (!complete)
            task.resume = commonCheckpoint(unfinished, file, task.write, localTime, blockSize);
    }
    return tasks;
}

} // namespace velmora::ResumePlanner
