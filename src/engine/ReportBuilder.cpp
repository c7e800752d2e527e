#include "engine/ReportBuilder.h"

#include "base/Product.h"
#include "blocks/CardVerdict.h"
#include "disks/VolumeSerial.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"
#include "records/OffloadPlan.h"

#include <algorithm>
#include <iterator>

namespace velmora::ReportBuilder {

namespace {

// The first generation of a folder is a copy, also when a later run had to finish it.
std::string kindOf(const OffloadPlan& plan) {
    switch (plan.mode) {
    case PlanMode::append:
        return plan.generation > 1 ? "append" : "copy";
    case PlanMode::repair:
        return "repair";
    case PlanMode::full:
        break;
    }
    return "copy";
}

std::string filesystemOf(const std::string& path) {
    try {
        return IO::filesystemType(path);
    } catch (const IOError&) {
        return "?";
    }
}

// The 128-bit digest from the read-back; kept only when all disks gave the same one.
std::optional<std::string> secondDigest(const Results& results, std::size_t file) {
    std::optional<std::string> found;
    for (const auto& writer : results.writers) {
        if (!writer || writer->xxh128(file).empty())
            continue;
        if (found && *found != writer->xxh128(file))
            return std::nullopt;
        found = writer->xxh128(file);
    }
    return found;
}

OffloadReport::Destination destinationOf(const Results& results, std::size_t d) {
    const std::string& cardPath = results.destinations[d].cardPath;
    OffloadReport::Destination destination;
    destination.root = d < results.plan.destRoots.size() ? results.plan.destRoots[d] : cardPath;
    destination.cardPath = cardPath;
    destination.filesystem = filesystemOf(destination.root);
    destination.volumeSerial = VolumeFacts::volumeSerialText(destination.root);
    if (results.writers[d])
        destination.unbuffered = results.writers[d]->unbuffered();
    if (results.verified)
        destination.verifyMethod = "read-back";
    return destination;
}

OffloadReport::FileEntry entryOf(const Results& results, std::size_t file) {
    const SourceFile& source = results.plan.scan.files[file];
    OffloadReport::FileEntry entry;
    entry.path = source.relPath;
    entry.size = source.size;
    entry.modified = source.mtime;
    FileHashes digests;
    digests.xxh64 = results.hasher.hashOf(file);
    entry.xxh64 = digests.xxh64Hex();
    entry.xxh128 = secondDigest(results, file);
    if (const auto error = results.sourceErrors.find(file); error != results.sourceErrors.end())
        entry.sourceError = error->second;
    else if (file >= results.endedAt)
        entry.sourceError = results.endReason;
    const std::size_t columns = results.destinations.size();
    entry.destinations.reserve(columns);
    entry.errors.reserve(columns);
    // What was rewritten is recorded only where a copy existed before.
    const bool tellsRewritten = !results.plan.task(file).write.empty();
    if (tellsRewritten)
        entry.rewritten.emplace(columns);
    for (std::size_t d = 0; d < columns; ++d) {
        const DestWriter* writer = results.writers[d].get();
        const DestFileResult result =
            writer ? writer->results()[file] : DestFileResult{FileState::failed, results.destinations[d].error};
        entry.destinations.emplace_back(name(result.state));
        entry.errors.push_back(result.error);
        if (tellsRewritten && writer)
            (*entry.rewritten)[d] = writer->wasWritten(file);
    }
    return entry;
}

// What the plan asks for and the read-back adds, as far as a stage of this run has computed it for any file.
std::optional<std::vector<std::string>> algorithmsOf(HashKinds kinds,
                                                     const std::vector<OffloadReport::FileEntry>& files) {
    std::vector<std::string> names = kinds.names();
    names.emplace_back("xxh128");
    std::erase_if(names, [&](const std::string& name) {
        return name != "xxh64" &&
               std::ranges::none_of(files, [&](const auto& entry) { return entry.digest(name).has_value(); });
    });
    return names.size() > 1 ? std::optional(std::move(names)) : std::nullopt;
}

// It cannot be copied, and no record can hold its true name: the card must not pass for backed up.
OffloadReport::FileEntry entryOf(const UncopiedItem& item, std::size_t columns) {
    OffloadReport::FileEntry entry;
    entry.path = item.shown;
    entry.size = item.size;
    entry.modified = item.mtime;
    entry.sourceError = item.error;
    entry.destinations.assign(columns, std::string(name(FileState::pending)));
    entry.errors.resize(columns);
    return entry;
}

// Blocks that are wrong on two or more disks, by file and number: the card is asked where that came from.
std::vector<std::string> questionsToTheCard(const Results& results) {
    std::map<std::size_t, CardVerdict::FileMismatches> found;
    for (std::size_t d = 0; d < results.writers.size(); ++d) {
        if (!results.writers[d])
            continue;
        const std::string disk = diskName(results.destinations[d].cardPath);
        for (const DestWriter::Wrong& wrong : results.writers[d]->wrong())
            for (const ReadBack::WrongBlock& block : wrong.blocks)
                found[wrong.file].add(block.number,
                                      results.hasher.blocksOf(wrong.file).at(static_cast<std::size_t>(block.number)),
                                      block.hash, disk);
    }
    std::vector<std::string> notes;
    for (const auto& [file, mismatches] : found) {
        const auto readCard = [&, f = file](std::int64_t block) { return results.readCard(f, block); };
        std::ranges::move(
            CardVerdict::notes(results.plan.scan.files[file].relPath, mismatches.onSeveralDisks(), readCard),
            std::back_inserter(notes));
    }
    return notes;
}

std::vector<std::string> notesOf(const Results& results) {
    std::vector<std::string> notes = questionsToTheCard(results);
    for (std::size_t d = 0; d < results.writers.size(); ++d) {
        const DestWriter* writer = results.writers[d].get();
        if (writer == nullptr)
            continue;
        const std::string disk = diskName(results.destinations[d].cardPath);
        for (const DestWriter::Wrong& wrong : writer->wrong()) {
            std::vector<std::int64_t> steady;
            std::vector<std::int64_t> changing;
            for (const ReadBack::WrongBlock& block : wrong.blocks)
                (block.changing ? changing : steady).push_back(block.number);
            const std::string& path = results.plan.scan.files[wrong.file].relPath;
            if (!steady.empty())
                notes.push_back(CardVerdict::differs(path, disk, steady));
            if (!changing.empty())
                notes.push_back(CardVerdict::changing(path, disk, changing));
        }
        for (const DestWriter::Unstable& unstable : writer->unstable())
            notes.push_back(
                CardVerdict::unstable(results.plan.scan.files[unstable.file].relPath, disk, unstable.blocks));
        if (writer->cachedReads() > 0)
            notes.push_back(CardVerdict::throughCache(disk, writer->cachedReads()));
    }
    return notes;
}

} // namespace

std::string diskName(const std::string& root) {
    const auto mount = VolumeFacts::mount(root);
    if (!mount || mount->mountPoint == "/")
        return root;
    std::string name = VolumeFacts::nameOfVolumeAt(mount->mountPoint);
    return name.empty() ? root : name;
}

OffloadReport build(const Results& results) {
    const OffloadPlan& plan = results.plan;
    OffloadReport report;
    report.tool = "offload";
    report.version = Product::version;
    report.hashAlgorithm = "xxh64";
    report.generation = plan.generation;
    report.kind = kindOf(plan);
    report.project = plan.project;
    report.cardName = plan.cardName;
    report.date = plan.date;
    report.source = plan.source;
    report.sourceFilesystem = filesystemOf(plan.source);
    report.sourceMedium = plan.sourceMedium;
    report.elsewhere = plan.elsewhere;
    report.started = results.started;
    report.copyFinished = results.copyFinished;
    report.verified = results.verified;
    if (results.pending)
        report.verifyPending = true;
    if (results.copyPaused > 0)
        report.copyPausedSeconds = results.copyPaused;
    if (results.verifyPaused > 0)
        report.verifyPausedSeconds = results.verifyPaused;
    report.totalFiles = static_cast<std::int64_t>(plan.scan.files.size() + plan.scan.uncopied.size());
    report.totalBytes = plan.scan.totalBytes();
    report.skipped = plan.scan.skipped;
    for (std::size_t d = 0; d < results.destinations.size(); ++d)
        report.destinations.push_back(destinationOf(results, d));
    report.files.reserve(plan.scan.files.size() + plan.scan.uncopied.size());
    for (std::size_t file = 0; file < plan.scan.files.size(); ++file)
        report.files.push_back(entryOf(results, file));
    // Behind the others: the indexes of the plan stay those of the report.
    for (const UncopiedItem& item : plan.scan.uncopied) {
        report.files.push_back(entryOf(item, results.destinations.size()));
        report.totalBytes += item.size;
    }
    report.countFiles();
    report.hashAlgorithms = algorithmsOf(plan.hashKinds, report.files);
    if (std::vector<std::string> notes = notesOf(results); !notes.empty())
        report.verifyNotes = std::move(notes);
    report.finished = Timestamp::now();
    return report;
}

} // namespace velmora::ReportBuilder
