#include "memory/ResumePlanner.h"

#include "base/Msg.h"
#include "base/Text.h"
#include "blocks/ManifestFile.h"
#include "engine/Layout.h"
#include "memory/AppendPlanner.h"
#include "memory/ReportFile.h"
#include "mhl/MHL.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"

#include <fmt/format.h>

#include <algorithm>

namespace velmora::ResumePlanner {

namespace {

struct OpenState {
    std::int64_t committed = 0;
    std::optional<std::int64_t> open;
    std::vector<ManifestRecord> lines; // above `committed`, or of the open generation
};

std::optional<OffloadReport> readReport(const std::string& path) {
    try {
        return ReportFile::read(path);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The open generation of one folder, with its manifest lines.
OpenState openAt(const std::string& cardPath) {
    OpenState state;
    state.committed = committed(cardPath);
    std::int64_t highest = state.committed;
    const bool lastIsOpen = state.committed > 0 && unsettled(cardPath, state.committed);
    const std::int64_t lowest = lastIsOpen ? state.committed : state.committed + 1;
    ManifestFile::forEach(cardPath, [&](ManifestRecord&& record) {
        if (record.gen >= lowest) {
            highest = std::max(highest, record.gen);
            state.lines.push_back(std::move(record));
        }
        return true;
    });
    if (highest > state.committed)
        state.open = highest;
    else if (lastIsOpen)
        state.open = state.committed;
    std::erase_if(state.lines, [&](const ManifestRecord& record) { return record.gen != state.open; });
    return state;
}

[[noreturn]] void diverged(const std::string& cardPath, std::int64_t generation) {
    throw OffloadError::preflight(PreflightCode::appendDiverged,
                                  VIPMsg::resumeDiverged(AppendPlanner::disk(cardPath), generation));
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
    std::vector<std::string> ignored;
    const auto chain = MHLReader::readChain(cardPath + "/" + std::string(MHL::dirName), ignored);
    std::int64_t highest = 0;
    for (const MHLChainEntry& entry : chain)
        highest = std::max(highest, entry.seq);
    return highest;
}

std::string reportPath(const std::string& cardPath, std::int64_t generation) {
    return cardPath + "/" + std::string(Layout::reportDirName) + "/" + OffloadReport::jsonName(generation);
}

bool unsettled(const std::string& cardPath, std::int64_t generation) {
    const auto report = readReport(reportPath(cardPath, generation));
    return report && (report->verifyPending.value_or(false) || report->verifyIncomplete.value_or(false));
}

std::optional<Unfinished> find(const std::vector<std::string>& paths) {
    std::vector<OpenState> states;
    std::optional<std::int64_t> open;
    for (const std::string& path : paths) {
        states.push_back(openAt(path));
        if (states.back().open)
            open = std::max(open.value_or(0), *states.back().open);
    }
    if (!open)
        return std::nullopt;
    Unfinished found;
    found.generation = *open;
    for (std::size_t d = 0; d < paths.size(); ++d) {
        const OpenState& state = states[d];
        // A disk without lines of the generation may be one that the run never got to, if it stands exactly before it.
        const bool behind = !state.open && state.committed == *open - 1;
        if (state.open != open && !behind)
            diverged(paths[d], *open);
        found.files.push_back(ManifestFile::files(state.lines, *open));
        found.parts.push_back(ManifestFile::parts(state.lines, *open));
        found.manifests.push_back(std::move(states[d].lines));
        if (auto report = readReport(reportPath(paths[d], *open)); report && !found.report)
            found.report = std::make_shared<OffloadReport>(std::move(*report));
    }
    if (found.report) {
        found.fixedFiles.emplace();
        for (const auto& file : found.report->files)
            found.fixedFiles->insert(pathKey(file.path));
    }
    return found;
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

Decision decide(const Unfinished& unfinished, const std::vector<SourceFile>& files, const SizeOnDisk& sizeOnDisk,
                bool localTime, std::int64_t blockSize) {
    const std::size_t destinations = unfinished.files.size();
    Decision decision;
    for (const SourceFile& file : files) {
        std::vector<const ManifestRecord*> records;
        std::vector<bool> write(destinations, false);
        for (std::size_t d = 0; d < destinations; ++d) {
            const ManifestRecord* record = unfinished.fileOf(d, file, localTime);
            if (record && sizeOnDisk(d, file) == file.size)
                records.push_back(record);
            else
                write[d] = true;
        }
        std::optional<ManifestRecord> known;
        if (const ManifestRecord* record = commonRecord(records))
            known = *record;
        else if (!records.empty())
            write.assign(destinations, true);
        const bool complete = known && records.size() == destinations;
        decision.resume.push_back(complete ? std::nullopt
                                           : commonCheckpoint(unfinished, file, write, localTime, blockSize));
        decision.write.push_back(std::move(write));
        decision.known.push_back(std::move(known));
    }
    return decision;
}

} // namespace velmora::ResumePlanner
