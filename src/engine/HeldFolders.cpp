#include "engine/HeldFolders.h"

#include "base/Errors.h"
#include "disks/SpacePlanner.h"

#include <algorithm>
#include <fmt/format.h>

namespace velmora {

HeldFolders::HeldFolders(const std::vector<std::string>& paths, const HeldFolders* roots) {
    for (const std::string& path : paths) {
        Held held{path, std::nullopt, {}};
        try {
            const auto isAbove = [&](const Held& root) { return root.folder && path.starts_with(root.path + "/"); };
            const std::vector<Held> none;
            const std::vector<Held>& above = roots == nullptr ? none : roots->held_;
            const auto root = std::ranges::find_if(above, isAbove);
            if (root != above.end())
                held.folder.emplace(root->folder->below(path.substr(root->path.size() + 1)));
            else
                held.folder.emplace(path);
            held.volumeKey = SpacePlanner::volumeKey(path);
        } catch (const IOError&) { // `check` reports it later
        }
        held_.push_back(std::move(held));
    }
}

void HeldFolders::check(const std::string& path) const {
    const auto held = std::ranges::find(held_, path, &Held::path);
    const bool isHeld = held != held_.end() && held->folder;
    try {
        if (isHeld)
            held->folder->check();
        else
            HeldFolder(path).check(); // says why it cannot be opened
    } catch (const IOError& error) {
        throw OffloadError::failed(fmt::format("{} is not there any more ({}) — the disk was unmounted or pulled while "
                                               "the run was at work",
                                               path, error.what()));
    }
    if (!isHeld)
        throw OffloadError::failed(path + " was not there when the run began");
}

std::vector<std::string> HeldFolders::problems() const {
    std::vector<std::string> found;
    for (const Held& held : held_) {
        try {
            check(held.path);
        } catch (const std::exception& error) {
            found.emplace_back(error.what());
        }
    }
    return found;
}

bool HeldFolders::anyOffVolume(const std::string& volumeKey) const {
    return std::ranges::any_of(held_, [&](const Held& held) { return held.folder && held.volumeKey != volumeKey; });
}

} // namespace velmora
