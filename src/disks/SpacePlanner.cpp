#include "disks/SpacePlanner.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "platform/VolumeFacts.h"

#include <algorithm>

namespace velmora {

namespace {

// The path itself, or the nearest folder above it that exists. One that cannot be asked stands for itself: the folder
// above it may lie on another disk.
std::string existing(std::string path) {
    while (path.size() > 1 && IO::isGone(path)) {
        const std::size_t slash = path.rfind('/');
        path.resize(slash == std::string::npos ? 0 : std::max<std::size_t>(slash, 1));
        if (path.empty())
            return ".";
    }
    return path;
}

std::string shortageText(const VolumeDemand& demand, std::int64_t free) {
    return "Not enough space on " + demand.label + ": needs " + formatBytes(demand.need.total()) + " (" +
           demand.need.partsText() + "), free " + formatBytes(free);
}

std::string headroomText(const VolumeDemand& demand, std::int64_t left) {
    return "Only " + formatBytes(left) + " will be left on " + demand.label +
           " after the offload — under 5% headroom, the proxy estimate is approximate.";
}

std::optional<SpaceProblem> problemOf(const VolumeDemand& demand, const IO::Capacity& capacity) {
    const std::int64_t need = demand.need.total();
    const std::int64_t left = capacity.free - need;
    if (left < 0)
        return SpaceProblem{SpaceSeverity::blocking, demand.label, demand.need, capacity.free,
                            shortageText(demand, capacity.free)};
    if (left < capacity.total / 20 + (capacity.total % 20 > 0 ? 1 : 0)) // left × 20 < total, without the overflow
        return SpaceProblem{SpaceSeverity::warning, demand.label, demand.need, capacity.free,
                            headroomText(demand, left)};
    return std::nullopt;
}

} // namespace

std::string SpacePlanner::volumeKey(const std::string& path) {
    try {
        const std::string folder = existing(path);
        // Each subvolume of Btrfs has a device number of its own; the disk below is one.
        if (IO::filesystemType(folder) == "btrfs")
            if (const auto mount = VolumeFacts::mount(folder))
                return "device:" + mount->device;
        return "device:" + std::to_string(IO::stat(folder).device);
    } catch (const IOError&) {
        return "path:" + path; // a place of its own; whoever uses it will learn why it does not answer
    }
}

std::string SpacePlanner::labelOf(const std::string& path) {
    const std::string folder = existing(path);
    if (const auto label = VolumeFacts::label(folder); label && !label->empty())
        return *label;
    const auto mount = VolumeFacts::mount(folder);
    return mount && mount->mountPoint != "/" ? std::string(RelativePath::name(mount->mountPoint)) : path;
}

std::optional<IO::Capacity> SpacePlanner::capacityOf(const std::string& path) {
    try {
        const IO::Capacity capacity = IO::capacity(existing(path));
        // Some network and user-space file systems do not know their size and answer with zeros.
        return capacity.total > 0 ? std::optional(capacity) : std::nullopt;
    } catch (const IOError&) {
        return std::nullopt;
    }
}

void SpacePlanner::settle(const std::string& path) {
    try {
        IO::FileSystemSync(existing(path)).sync();
    } catch (const IOError&) {
        // Then what the file system says now is what counts.
    }
}

std::vector<SpaceTarget> SpacePlanner::targets(const std::vector<std::string>& cardPaths, const Disks& disks) {
    std::vector<SpaceTarget> result;
    for (const std::string& path : cardPaths)
        result.push_back({path, disks.keyOf(path), disks.labelOf(path)});
    return result;
}

std::vector<SpacePlace> SpacePlanner::places(const SpaceExtra& extra, std::int64_t card,
                                             const std::vector<SpaceTarget>& targets, const Disks& disks) {
    std::vector<SpacePlace> result;
    for (const SpaceTarget& target : targets) {
        const bool first = result.empty();
        result.push_back({target.root, target.label,
                          SpaceNeed{.card = card,
                                    .proxy = first || extra.proxyOnAllDestinations ? extra.proxy : 0,
                                    .report = first ? extra.report : 0}});
    }
    if (extra.proxyFolder && extra.proxy > 0)
        result.push_back({*extra.proxyFolder, disks.labelOf(*extra.proxyFolder), SpaceNeed{.proxy = extra.proxy}});
    return result;
}

std::vector<VolumeDemand> SpacePlanner::demands(const std::vector<SpacePlace>& places, const Disks& disks) {
    std::vector<VolumeDemand> result;
    for (const SpacePlace& place : places) {
        const std::string key = disks.keyOf(place.path);
        auto known = std::ranges::find(result, key, &VolumeDemand::volume);
        if (known == result.end())
            known = result.insert(known, VolumeDemand{key, place.label, {}});
        known->need += place.need;
    }
    return result;
}

std::vector<SpaceProblem> SpacePlanner::check(const std::vector<VolumeDemand>& demands,
                                              const std::map<std::string, IO::Capacity>& capacity) {
    std::vector<SpaceProblem> problems;
    for (const VolumeDemand& demand : demands) {
        const auto found = capacity.find(demand.volume);
        if (found == capacity.end())
            continue;
        if (auto problem = problemOf(demand, found->second))
            problems.push_back(std::move(*problem));
    }
    return problems;
}

SpacePlanner::Verdict SpacePlanner::checkPlaces(const std::vector<SpacePlace>& places, const Disks& disks) {
    std::map<std::string, IO::Capacity> capacity;
    for (const SpacePlace& place : places)
        if (const auto answer = disks.capacityOf(place.path))
            capacity.emplace(disks.keyOf(place.path), *answer);
    const std::vector<VolumeDemand> volumes = demands(places, disks);
    Verdict verdict{check(volumes, capacity), {}};
    for (const VolumeDemand& demand : volumes)
        if (const auto known = capacity.find(demand.volume); known != capacity.end())
            verdict.lines.push_back({demand.label, demand.need, known->second.free});
    return verdict;
}

} // namespace velmora
