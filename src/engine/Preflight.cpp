#include "engine/Preflight.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "disks/SpacePlanner.h"
#include "disks/Volumes.h"
#include "engine/DestWriter.h"
#include "engine/Layout.h"
#include "engine/OffloadOptions.h"
#include "engine/Scanner.h"
#include "platform/VolumeFacts.h"

#include <algorithm>
#include <set>
#include <utility>

namespace velmora {

namespace {

constexpr std::int64_t blockAlignment = 4096;
constexpr std::int64_t largestBlock = 1073741824;
// What a file costs beside its bytes, for reports, manifest and the file system; and slack for the run as a whole.
constexpr std::int64_t bytesPerFile = 65536;
constexpr std::int64_t slack = 67108864;

[[noreturn]] void refuse(PreflightCode code, const std::string& message) {
    throw OffloadError::preflight(code, message);
}

void checkOptions(const OffloadOptions& options) {
    if (options.chunkSize < 1 || options.chunkSize > largestBlock || options.chunkSize % blockAlignment != 0)
        refuse(PreflightCode::chunkSize, "Block size must be a multiple of 4096 B and at most 1 GiB (got " +
                                             std::to_string(options.chunkSize) + ").");
    if (options.bufferCount < 2)
        refuse(PreflightCode::bufferCount,
               "Buffer count must be at least 2 (got " + std::to_string(options.bufferCount) + ").");
}

void checkDate(const std::optional<std::string>& date) {
    if (date && !Layout::isDate(*date))
        refuse(PreflightCode::date, "Date must be YYYY-MM-DD (got “" + *date + "”).");
}

void checkRootsDiffer(const std::vector<std::string>& roots) {
    std::set<std::string> seen;
    for (const std::string& root : roots)
        if (!seen.insert(Layout::normalizedRoot(root)).second)
            refuse(PreflightCode::duplicateDestination, "Destination added twice: " + root);
}

bool looksLikeOffload(const std::string& source) {
    try {
        return std::ranges::any_of(IO::list(source), [&](const IOEntry& entry) {
            return Layout::isReserved(entry.name) && IO::lstat(source + "/" + entry.name).isFolder;
        });
    } catch (const IOError&) {
        return false; // the scan will say what is wrong
    }
}

void refuseOffload(const std::string& source) {
    if (looksLikeOffload(source))
        refuse(PreflightCode::sourceIsOffload, "The source looks like an earlier offload (it has _REPORT, _PROXY or "
                                               "ascmhl) — copy the original card, or remove those folders.");
}

// What a failing disk does not show is refused as unreadable; it is neither missing nor free.
[[noreturn]] void refuseUnreadable(const IOError& error) {
    refuse(PreflightCode::destinationUnreadable, "Cannot read the destination: " + error.path());
}

// Checks a card folder that exists. The planner reports one that does not.
void checkCardFolder(const std::string& cardPath, const std::string& source) try {
    if (!IO::isFolder(cardPath))
        return;
    if (VolumeFacts::awaitsVolume(cardPath))
        refuse(PreflightCode::appendUnavailable,
               "The earlier backup is not available: " + cardPath + " — connect the drive, or make a full copy.");
    if (Volumes::isWithin(cardPath, source))
        refuse(PreflightCode::sameVolumeAsSource,
               "The card folder " + cardPath + " lies inside the source " + source + " — a copy must lie outside it.");
    // Any other folder above the source is no card folder, and the planner says that.
    const bool hasRecords = IO::isFolder(RelativePath::join(cardPath, Layout::reportDirName));
    if (hasRecords && Volumes::isWithin(source, cardPath))
        refuse(PreflightCode::sameVolumeAsSource,
               "The source " + source + " lies inside the card folder " + cardPath + " — give the original card.");
    for (const std::string_view name : {std::string_view(), Layout::reportDirName, Layout::mhlDirName}) {
        const std::string path = name.empty() ? cardPath : RelativePath::join(cardPath, name);
        if (!IO::exists(path))
            continue;
        if (!name.empty() && IO::lstat(path).isLink)
            refuse(PreflightCode::destinationUnreadable,
                   path + " is a link — records are neither read nor written through one.");
        if (!IO::isWritable(path))
            refuse(PreflightCode::destinationNotWritable, "Cannot write to the destination: " + path);
    }
} catch (const IOError& error) {
    refuseUnreadable(error);
}

std::string deviceOf(const std::string& path, PreflightCode code, const std::string& message) {
    try {
        IO::stat(path);
        return SpacePlanner::volumeKey(path);
    } catch (const IOError&) {
        refuse(code, message);
    }
}

// The source lies in an earlier backup, and this root lies in the same card folder.
bool isInSourcesCardFolder(const std::string& root, const std::string& source) {
    for (std::string at = VolumeFacts::realPath(source); at.size() > 1; at = RelativePath::folder(at))
        if (IO::isFolder(RelativePath::join(at, Layout::reportDirName)) && Volumes::isWithin(root, at))
            return true;
    return false;
}

// Two folders of one disk count as one drive; the order of the roots decides which one is named.
void checkRoots(const std::vector<std::string>& roots, const std::string& source, const OffloadOptions& options) try {
    const std::string sourceDevice =
        deviceOf(source, PreflightCode::sourceUnreadable, "Cannot read the source: " + source);
    std::set<std::string> devices;
    for (const std::string& root : roots) {
        if (!IO::isFolder(root) || VolumeFacts::awaitsVolume(root))
            refuse(PreflightCode::destinationNotFound, "Destination not found: " + root + " — is the drive connected?");
        if (!IO::isWritable(root))
            refuse(PreflightCode::destinationNotWritable, "Cannot write to the destination: " + root);
        const std::string device =
            deviceOf(root, PreflightCode::destinationUnreadable, "Cannot read the destination: " + root);
        if (device == sourceDevice && !options.allowSourceVolume)
            refuse(PreflightCode::sameVolumeAsSource, "Destination " + root + " is on the same drive as the source.");
        if (Volumes::isWithin(root, source))
            refuse(PreflightCode::sameVolumeAsSource,
                   "Destination " + root + " lies inside the source " + source + " — a copy must lie outside it.");
        if (isInSourcesCardFolder(root, source))
            refuse(PreflightCode::sameVolumeAsSource, "Destination " + root +
                                                          " lies in the card folder that holds the source " + source +
                                                          " — a copy must lie outside it.");
        if (!devices.insert(device).second && !options.allowSameDevice)
            refuse(PreflightCode::sharedVolume, "Two destinations are on the same drive (" + root +
                                                    ") — that is not a second copy. Allow it with "
                                                    "--allow-same-device.");
    }
} catch (const IOError& error) {
    refuseUnreadable(error);
}

void checkSource(const std::string& source) try {
    Scanner::checkReadAccess(source);
    if (!IO::isFolder(source))
        refuse(PreflightCode::sourceNotFound, "Source not found: " + source);
} catch (const IOError&) {
    refuse(PreflightCode::sourceUnreadable, "Cannot read the source: " + source);
}

SourceScan scanOf(const Preflight::Inputs& inputs, const IsCancelled& isCancelled) {
    SourceScan scan = inputs.listing ? *inputs.listing : Scanner::scan(inputs.source, isCancelled);
    // A card whose every file is beyond copying is not empty: the run reports each of them as failed.
    if (scan.files.empty() && scan.uncopied.empty())
        refuse(PreflightCode::emptySource, "There are no files on the source.");
    return scan;
}

} // namespace

void Preflight::checkInputs(const Inputs& inputs, const OffloadOptions& options) {
    checkOptions(options);
    checkDate(inputs.date);
    checkSource(inputs.source);
    if (inputs.destRoots.empty())
        refuse(PreflightCode::noDestination, "No destination selected.");
    checkRootsDiffer(inputs.destRoots);
    refuseOffload(inputs.source);
    checkRoots(inputs.destRoots, inputs.source, options);
}

void Preflight::checkCopyAt(const std::string& cardPath, const std::string& source) {
    if (VolumeFacts::awaitsVolume(cardPath))
        refuse(PreflightCode::destinationNotFound, "Destination not found: " + cardPath + " — is the drive connected?");
    if (Volumes::isWithin(cardPath, source))
        refuse(PreflightCode::sameVolumeAsSource,
               "The copy " + cardPath + " would lie inside the source " + source + " — it must lie outside it.");
}

Preflight::Result Preflight::prepare(const Inputs& inputs, const OffloadOptions& options, const ExtraOf& extra,
                                     const FreeSpace& freeSpace, const IsCancelled& isCancelled) {
    checkInputs(inputs, options);
    Result result;
    OffloadPlan& plan = result.plan;
    plan.source = inputs.source;
    plan.destRoots = inputs.destRoots;
    plan.scan = scanOf(inputs, isCancelled);
    plan.date = inputs.date.value_or(Layout::today());
    const std::string name =
        inputs.cardName ? Layout::sanitize(*inputs.cardName) : Layout::defaultCardName(inputs.source);
    try {
        plan.cardName = Layout::uniqueCardFolder(plan.destRoots, plan.date, name);
    } catch (const IOError& error) {
        refuseUnreadable(error);
    }
    for (const std::string& cardPath : plan.cardPaths())
        checkCopyAt(cardPath, plan.source);
    result.space = checkSpace(demands(plan), plan.cardPaths(), extra ? extra(plan.scan) : SpaceExtra{}, freeSpace);
    return result;
}

void Preflight::checkInto(const std::string& source, const std::vector<std::string>& cardPaths,
                          const OffloadOptions& options) {
    checkOptions(options);
    checkSource(source);
    checkRootsDiffer(cardPaths);
    refuseOffload(source);
    for (const std::string& path : cardPaths)
        checkCardFolder(path, source);
}

std::vector<SpaceNeed> Preflight::demands(const OffloadPlan& plan) {
    const std::vector<std::string> cardPaths = plan.cardPaths();
    std::vector<SpaceNeed> all(cardPaths.size(), SpaceNeed{.report = slack});
    for (std::size_t file = 0; file < plan.scan.files.size(); ++file) {
        const FileTask& task = plan.task(file);
        const auto& part = task.resume;
        const std::int64_t held = part ? part->blockSize * static_cast<std::int64_t>(part->blocks.size()) : 0;
        for (std::size_t d = 0; d < all.size(); ++d) {
            const SourceFile& source = plan.scan.files[file];
            std::int64_t bytes = 0;
            if (task.writesTo(d)) {
                // A part file that a dead run has left holds the room for the whole file already.
                const std::string left = RelativePath::join(cardPaths[d], DestWriter::partName(source.relPath));
                bytes = source.size - std::max(held, plan.resuming ? IO::allocatedBytes(left) : 0);
            }
            all[d] += SpaceNeed{.card = std::max<std::int64_t>(0, bytes), .report = bytesPerFile};
        }
    }
    return all;
}

Preflight::Space Preflight::checkSpace(const std::vector<SpaceNeed>& demands, const std::vector<std::string>& cardPaths,
                                       const SpaceExtra& extra, const FreeSpace& freeSpace) {
    SpacePlanner::Disks disks;
    if (freeSpace)
        disks.capacityOf = freeSpace;
    const std::vector<SpaceTarget> targets = SpacePlanner::targets(cardPaths, disks);
    std::vector<SpacePlace> places = SpacePlanner::places(extra, 0, targets, disks);
    for (std::size_t d = 0; d < demands.size(); ++d)
        places[d].need += demands[d];
    SpacePlanner::Verdict verdict = SpacePlanner::checkPlaces(places, disks);
    if (std::ranges::find(verdict.problems, SpaceSeverity::blocking, &SpaceProblem::severity) !=
        verdict.problems.end()) {
        for (const SpacePlace& place : places)
            SpacePlanner::settle(place.path);
        verdict = SpacePlanner::checkPlaces(places, disks);
    }
    Space space{{}, std::move(verdict.lines)};
    for (const SpaceProblem& problem : verdict.problems) {
        if (problem.severity == SpaceSeverity::blocking)
            refuse(PreflightCode::noSpace, problem.text);
        space.warnings.push_back(problem.text);
    }
    return space;
}

} // namespace velmora
