#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// One mounted volume, as a person sees it.
struct VolumeItem {
    std::string name;
    std::string path;
    std::int64_t total = 0; // bytes
    std::int64_t free = 0;
    std::string format; // file-system name
    bool looksLikeCard = false;
    bool isDestination = false;
    std::optional<std::string> identity;
    std::optional<std::string> ejectProblem; // why it cannot be ejected
    bool isWritable = false;
};

// The volumes that a user works with, told apart into camera cards and disks. Reads folders and file-system facts; no
// function throws, a volume that cannot be read is listed with what is known of it.
namespace Volumes {

// Top-level folders that cameras make.
extern const std::vector<std::string_view> markers;
// Extensions of camera media, lower case.
extern const std::vector<std::string_view> mediaExtensions;

// Volumes at or below the places where removable media are mounted, and those that hold a destination root.
std::vector<VolumeItem> scan(const std::vector<std::string>& destRoots);

// A marker folder, or media in the root or one level below it (the first 50 folders by name). RED's magazines (*.RDM)
// and clips (*.RDC) are folders and count as media. Neither size nor file system counts, and hidden names are left out.
bool looksLikeCameraCard(const std::string& path);

// `path` is `folder` or lies in it, whatever links, bind mounts or spelling of its name lead there. A path that does
// not exist is judged by the folders above it that do.
bool isWithin(const std::string& path, const std::string& folder);

// Proposed destinations: first those of `current` that are still mounted, in their places; then every other writable
// volume that is no card, no internal disk, not the source and not in `ignored` (paths or names).
std::vector<std::string> autoDestinations(const std::vector<std::string>& current,
                                          const std::vector<VolumeItem>& volumes,
                                          const std::vector<std::string>& ignored, const std::string& source);

// What stays selected in a list after a refresh: the earlier selection as far as it is still there, in its order; new
// cards are added when `selectNewCards`.
std::vector<std::string> selectionAfterRefresh(const std::vector<std::string>& previousPaths,
                                               const std::vector<std::string>& previouslySelected,
                                               const std::vector<VolumeItem>& now, bool selectNewCards);

// The mount point below which a path lies; "/" when it lies on no mounted volume of the user.
std::string volumeRoot(const std::string& path);

} // namespace Volumes

} // namespace velmora
