#include "disks/Volumes.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "disks/CardIdentity.h"
#include "disks/VolumeSerial.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <algorithm>
#include <set>

namespace velmora::Volumes {

const std::vector<std::string_view> markers = {"DCIM",   "PRIVATE",  "CLIP",     "CONTENTS", "XDROOT",
                                               "M4ROOT", "AVF_INFO", "CANONMSC", "BRAW",     "MISC"};
const std::vector<std::string_view> mediaExtensions = {"braw", "r3d", "rdm", "rdc", "mxf", "mov", "mp4", "ari", "crm"};

namespace {

constexpr std::size_t foldersLookedInto = 50;

// Visible entries by name, so that which fifty folders are looked into does not hang on the order of the disk.
std::vector<IOEntry> visible(const std::string& folder) {
    std::vector<IOEntry> entries;
    try {
        entries = IO::list(folder);
    } catch (const IOError&) {
        return {};
    }
    std::erase_if(entries, [](const IOEntry& entry) { return entry.name.starts_with('.'); });
    std::sort(entries.begin(), entries.end(), [](const IOEntry& a, const IOEntry& b) { return a.name < b.name; });
    return entries;
}

bool hasMedia(const std::vector<IOEntry>& entries) {
    return std::any_of(entries.begin(), entries.end(), [](const IOEntry& entry) {
        const std::size_t dot = entry.name.rfind('.');
        if (dot == std::string::npos)
            return false;
        const std::string extension = toLower(entry.name.substr(dot + 1));
        if (entry.isFolder())
            return extension == "rdm" || extension == "rdc";
        return entry.isFile() && std::ranges::find(mediaExtensions, extension) != mediaExtensions.end();
    });
}

std::string nameOf(const VolumeFacts::Mount& mount) {
    const std::string name = VolumeFacts::nameOfVolumeAt(mount.mountPoint);
    return name.empty() ? mount.mountPoint : name;
}

std::optional<std::string> ejectProblem(const VolumeFacts::Mount& mount) {
    if (!mount.local)
        return "a network folder is not ejected";
    if (VolumeFacts::isInternal(mount.mountPoint))
        return "an internal disk cannot be ejected";
    return std::nullopt;
}

VolumeItem describe(const VolumeFacts::Mount& mount, bool isDestination) {
    VolumeItem item;
    item.name = nameOf(mount);
    item.path = mount.mountPoint;
    try {
        const IO::Capacity capacity = IO::capacity(mount.mountPoint);
        item.total = capacity.total;
        item.free = capacity.free;
    } catch (const IOError&) {
        // A disk that was pulled this moment stays in the list until the mount table lets it go.
    }
    item.format = VolumeFacts::filesystemName(mount.mountPoint);
    item.looksLikeCard = looksLikeCameraCard(mount.mountPoint);
    item.isDestination = isDestination;
    item.identity = CardIdentity::of(mount.mountPoint);
    item.ejectProblem = ejectProblem(mount);
    item.isWritable = !mount.readOnly && IO::isWritable(mount.mountPoint);
    return item;
}

bool contains(const std::vector<std::string>& list, const std::string& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

} // namespace

bool looksLikeCameraCard(const std::string& path) {
    const std::vector<IOEntry> entries = visible(path);
    for (const IOEntry& entry : entries)
        if (entry.isFolder() && std::ranges::find(markers, toUpper(entry.name)) != markers.end())
            return true;
    if (hasMedia(entries))
        return true;
    std::size_t folders = 0;
    for (const IOEntry& entry : entries) {
        if (!entry.isFolder())
            continue;
        if (folders++ == foldersLookedInto)
            return false;
        if (hasMedia(visible(path + "/" + entry.name)))
            return true;
    }
    return false;
}

bool isWithin(const std::string& path, const std::string& folder) {
    const auto isSame = [](const FileFacts& a, const FileFacts& b) {
        return a.device == b.device && a.inode == b.inode;
    };
    try {
        const FileFacts outer = IO::stat(folder);
        for (std::string at = VolumeFacts::realPath(path); !at.empty(); at = RelativePath::folder(at))
            if (IO::exists(at) && isSame(IO::stat(at), outer))
                return true;
        if (isSame(IO::stat("/"), outer))
            return true;
    } catch (const IOError&) {
        // Where the system does not say, the path decides.
    }
    const auto inner = VolumeFacts::placeOnVolume(path);
    const auto outer = VolumeFacts::placeOnVolume(folder);
    return inner && outer && (*inner == *outer || inner->starts_with(*outer + "/"));
}

std::vector<VolumeItem> scan(const std::vector<std::string>& destRoots) {
    std::set<std::string> destinations;
    std::vector<VolumeFacts::Mount> mounts = VolumeFacts::userVolumes();
    for (const std::string& root : destRoots) {
        const auto mount = VolumeFacts::mount(root);
        if (!mount)
            continue;
        destinations.insert(mount->mountPoint);
        if (std::none_of(mounts.begin(), mounts.end(),
                         [&](const auto& m) { return m.mountPoint == mount->mountPoint; }))
            mounts.push_back(*mount);
    }
    std::vector<VolumeItem> items;
    for (const VolumeFacts::Mount& mount : mounts)
        items.push_back(describe(mount, destinations.contains(mount.mountPoint)));
    return items;
}

std::vector<std::string> autoDestinations(const std::vector<std::string>& current,
                                          const std::vector<VolumeItem>& volumes,
                                          const std::vector<std::string>& ignored, const std::string& source) {
    std::vector<std::string> proposed;
    // Destinations that the user chose keep their place, whatever the rules below say.
    for (const std::string& root : current)
        if (!IO::isGone(root) && !VolumeFacts::awaitsVolume(root) && !contains(proposed, root))
            proposed.push_back(root);
    for (const VolumeItem& volume : volumes) {
        const bool chosenAlready = std::any_of(proposed.begin(), proposed.end(), [&](const std::string& root) {
            return root == volume.path || root.starts_with(volume.path + "/");
        });
        const bool isSource = source == volume.path || source.starts_with(volume.path + "/");
        if (chosenAlready || isSource || volume.looksLikeCard || volume.ejectProblem || !volume.isWritable ||
            contains(ignored, volume.path) || contains(ignored, volume.name))
            continue;
        proposed.push_back(volume.path);
    }
    return proposed;
}

std::vector<std::string> selectionAfterRefresh(const std::vector<std::string>& previousPaths,
                                               const std::vector<std::string>& previouslySelected,
                                               const std::vector<VolumeItem>& now, bool selectNewCards) {
    std::vector<std::string> selected;
    for (const std::string& path : previouslySelected)
        if (std::any_of(now.begin(), now.end(), [&](const VolumeItem& item) { return item.path == path; }))
            selected.push_back(path);
    if (selectNewCards)
        for (const VolumeItem& item : now)
            if (item.looksLikeCard && !contains(previousPaths, item.path) && !contains(selected, item.path))
                selected.push_back(item.path);
    return selected;
}

std::string volumeRoot(const std::string& path) {
    if (!VolumeFacts::isUserVolumePath(path))
        return "/";
    const auto mount = VolumeFacts::mount(path);
    return mount ? mount->mountPoint : "/";
}

} // namespace velmora::Volumes
