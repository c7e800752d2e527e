#pragma once

#include "platform/HeldFolder.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

// The card folders of one run, held from the moment they are its own until its last word. Whatever is written or judged
// goes to the disks that the run began with, or fails.
class HeldFolders {
public:
    // A folder that cannot be opened is not held, and every check of it fails.
    explicit HeldFolders(const std::vector<std::string>& cardPaths);

    // Throws OffloadError when the folder is not the one that the run began with.
    void check(const std::string& cardPath) const;
    // A sentence for each folder for which `check` throws.
    std::vector<std::string> problems() const;
    // One of the folders lies on another volume than `device`, the st_dev of the source.
    bool anyOffDevice(std::uint64_t device) const;

private:
    const std::vector<std::string> cardPaths_;
    std::vector<HeldFolder> held_;
};

} // namespace velmora
