#pragma once

#include "platform/IO.h"
#include "records/SpaceNeed.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Adds up what each disk must hold and compares it with what is free there, before a job starts.
namespace SpacePlanner {

// The key that two paths share exactly when they lie on one file system. A path need not exist yet: the nearest folder
// above it that does decides.
std::string volumeKey(const std::string& path);
// What people call the disk below a path: the volume's label, else the last part of its mount point, else (the
// system's own disk) the path.
std::string labelOf(const std::string& path);
// Capacity of the file system below a path; none when it cannot be told, and then nothing is said about that disk.
std::optional<IO::Capacity> capacityOf(const std::string& path);

// Asks the file system below a path to write everything out. Those that copy on write free deleted space only then.
// Errors are ignored.
void settle(const std::string& path);

// These three asked of the system; callers that know better, and tests, bring their own.
struct Disks {
    std::function<std::string(const std::string& path)> keyOf = volumeKey;
    std::function<std::string(const std::string& path)> labelOf = SpacePlanner::labelOf;
    std::function<std::optional<IO::Capacity>(const std::string& path)> capacityOf = SpacePlanner::capacityOf;
};

// One target for each card folder.
std::vector<SpaceTarget> targets(const std::vector<std::string>& cardPaths, const Disks& disks = {});

// Who gets what: every target holds the card. The proxies are rendered onto the first, which also counts the report
// with its pictures; the others get the proxies when those are copied to all, and a folder for proxies is a place of
// its own.
std::vector<SpacePlace> places(const SpaceExtra& extra, std::int64_t card, const std::vector<SpaceTarget>& targets,
                               const Disks& disks = {});

// What each volume must hold, in the order in which the places name them. A volume bears the label of its first place.
std::vector<VolumeDemand> demands(const std::vector<SpacePlace>& places, const Disks& disks = {});

// The shortages and the disks that get too full, in the order of the demands. `capacity` is keyed by volume.
std::vector<SpaceProblem> check(const std::vector<VolumeDemand>& demands,
                                const std::map<std::string, IO::Capacity>& capacity);

struct Verdict {
    std::vector<SpaceProblem> problems;
    std::vector<SpaceLine> lines; // one for each volume whose capacity is known
};
Verdict checkPlaces(const std::vector<SpacePlace>& places, const Disks& disks = {});

} // namespace SpacePlanner

} // namespace velmora
