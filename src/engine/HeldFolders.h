#pragma once

#include "platform/HeldFolder.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Folders of one run, held from the moment they are looked at until the run's last word. Whatever is written or judged
// goes to the disks that the run began with, or fails.
//
// Each step of a run asks ahead of what it does below a folder: a file's beginning and its rename, a line of the
// manifest, a flush, a read-back, a record. Between the question and the call of the system a disk may still go: then
// the call finds no such folder, or one of another disk that has come there. The question at the end never passes over
// that, because a mount that has gone does not come back as the same.
class HeldFolders {
public:
    // A folder that cannot be opened is not held, and every check of it fails. Folders at or below one of `roots` are
    // looked up from there.
    explicit HeldFolders(const std::vector<std::string>& paths, const HeldFolders* roots = nullptr);

    // Throws OffloadError when the folder is not the one that the run began with.
    void check(const std::string& path) const;
    // A sentence for each folder for which `check` throws.
    std::vector<std::string> problems() const;
    // One of the folders lies on another volume than this one (SpacePlanner::volumeKey).
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
