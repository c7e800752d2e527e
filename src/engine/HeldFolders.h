#pragma once

#include "platform/HeldFolder.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The folders of one run, held open from the first look at them to the end of the run. So all writing and all judging
// reaches the disks that the run began with, or fails.
//
// Each step of a run calls `check` before it works below a folder: before a file is begun or renamed, before a manifest
// line, a flush, a read-back, a record. A disk may still go between the check and the system call. Then the call finds
// no such folder, or that of another disk at the same path. The check at the end of the run notices it, because a mount
// that has gone never comes back as the same mount.
class HeldFolders {
public:
    // A folder that cannot be opened is not held, and every check of it fails. Folders at or below one of `roots` are
    // looked up from there.
    explicit HeldFolders(const std::vector<std::string>& paths, const HeldFolders* roots = nullptr);

    // Throws OffloadError when the folder is not the one that the run began with.
    void check(const std::string& path) const;
    // A sentence for each folder for which `check` throws.
    std::vector<std::string> problems() const;
    // True when one of the folders lies on another volume than this one (SpacePlanner::volumeKey).
    bool anyOffVolume(const std::string& volumeKey) const;

private:
    struct Held {
        std::string path;
        std::optional<HeldFolder> folder;
        std::string volumeKey;
    };
    std::vector<Held> held_;
};

} // namespace velmora
