#include "job/ReportRebuild.h"

#include "base/RelativePath.h"
#include "base/SideBySide.h"
#include "blocks/HashAlgo.h"
#include "disks/VolumeSerial.h"
#include "engine/Layout.h"
#include "job/SetAside.h"
#include "memory/CardRecord.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>

namespace velmora::ReportRebuild {

namespace {

constexpr std::int64_t largestReport = 1LL << 30;

struct Folder {
    std::string path;
    std::shared_ptr<const MHLHistory> history;                            // never null
    std::map<std::int64_t, std::shared_ptr<const OffloadReport>> reports; // by the number in the name; null: broken

    bool isWhole() const {
        return history->chainRead && history->chainProblems.empty() && history->refusedPaths.empty();
    }
    bool hasSameChain(const Folder& other) const {
        return std::ranges::equal(history->chain, other.history->chain, {}, &MHLChainEntry::seq, &MHLChainEntry::seq);
    }
};

std::string relativeName(std::int64_t generation) {
    return std::string(Layout::reportDirName) + "/" + OffloadReport::jsonName(generation);
}

std::shared_ptr<const OffloadReport> readable(FolderState& state, std::int64_t generation) {
    try {
        auto report = state.report(generation);
        return report->files.empty() || report->destinations.empty() ? nullptr : report;
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception&) {
        return nullptr;
    }
}

Folder look(FolderState& state) {
    Folder folder;
    folder.path = state.cardPath();
    for (const IOEntry& entry : IO::list(folder.path + "/" + std::string(Layout::reportDirName)))
        if (const auto number = CardRecord::numberedFile(entry.name); number && entry.isFile())
            folder.reports[*number] = readable(state, *number);
    folder.history = state.history();
    return folder;
}

// A digest of the file that both know, and the same in both.
bool agree(const OffloadReport::FileEntry& file, const MHLFileRecord& record) {
    bool compared = false;
    for (const MHLHash& hash : record.hashes)
        if (const auto& digest = file.digest(hash.algorithm)) {
            if (!HashAlgo::equal(hash.algorithm, *digest, hash.value))
                return false;
            compared = true;
        }
    return compared;
}

bool isProved(const Folder& folder, std::int64_t generation, const OffloadReport& report) {
    const auto column = CardRecord::columnOf(report, folder.path, VolumeFacts::volumeSerialText(folder.path));
    const auto chained = std::ranges::find(folder.history->generations, generation, &MHLGeneration::seq);
    const bool isFinal = !report.verifyIncomplete.value_or(false) && !report.verifyPending.value_or(false);
    if (!column || !isFinal || report.generationNumber() != generation || chained == folder.history->generations.end())
        return false;
    std::unordered_map<std::string, const MHLFileRecord*> listed;
    for (const MHLRecord& record : chained->files)
        if (!record->failed())
            listed.emplace(record->path, record.get());
    std::size_t verified = 0;
    for (const auto& file : report.files) {
        if (*column >= file.destinations.size() || file.destinations[*column] != "verified")
            continue;
        const auto record = listed.find(file.path);
        if (record == listed.end() || !agree(file, *record->second))
            return false;
        ++verified;
    }
    return verified == listed.size() && verified > 0;
}

} // namespace

std::vector<std::string> run(const std::vector<std::string>& cardPaths, const FolderStates& states,
                             const std::function<void(const std::string& cardPath)>& beforeWrite) {
    const auto folders = sideBySide(cardPaths.size(), [&](std::size_t d) { return look(states.of(cardPaths[d])); });
    std::vector<std::string> done;
    for (const Folder& folder : folders)
        for (const auto& [generation, report] : folder.reports) {
            if (report || !folder.isWhole())
                continue;
            const auto serves = [&, n = generation](const Folder& other) {
                const auto found = other.reports.find(n);
                return found != other.reports.end() && found->second && other.isWhole() && other.hasSameChain(folder) &&
                       isProved(folder, n, *found->second);
            };
            const auto from = std::ranges::find_if(folders, serves);
            if (from == folders.end())
                continue;
            const std::string name = relativeName(generation);
            const std::string bytes = IO::readFileBeneath(from->path, name, largestReport);
            beforeWrite(folder.path);
            SetAside::keep(folder.path, generation, name);
            IO::writeFileDurably(RelativePath::join(folder.path, name), bytes);
            done.push_back(fmt::format("{} in {} could not be read and was made anew from {}; what stood there is in "
                                       "{}/set-aside.",
                                       OffloadReport::jsonName(generation), folder.path, from->path,
                                       std::string_view(Layout::reportDirName)));
        }
    return done;
}

} // namespace velmora::ReportRebuild
