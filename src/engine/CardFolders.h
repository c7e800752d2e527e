#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace velmora {

struct OffloadPlan;

// The folders that a run writes into, made before its first file.
namespace CardFolders {

struct Destination {
    std::string cardPath;
    std::string topFolder;            // the deepest folder above the card folder that was there before
    std::optional<std::string> error; // why this destination takes no part in the run; none: it does
};

// Called before and after work below a folder. Throws when that folder is not the one that was checked.
using Check = std::function<void(const std::string& folder)>;

// Creates the card folder of a full copy on all destinations. Where two runs found the same name free, `mkdir`
// decides. The loser removes its folders and takes the next free name, which is put into the plan. All runs go
// through the roots in one order, so that none waits for folders that another one is removing. Throws when a root is
// not the one that was checked, and when a card folder would lie on the card. The folders of any other plan exist
// already, and the caller has locked them. There, temporary files that killed writes have left in the record folders
// are removed.
std::vector<Destination> claim(OffloadPlan& plan, const Check& check = {});

// Undoes a claim: removes the folders that a full copy has made, as far as they are empty, up to those that were there
// before. The folders of any other plan stay.
void giveBack(const OffloadPlan& plan, const std::vector<Destination>& claimed) noexcept;

// Creates every folder of the scan, the empty ones too, and every folder that a file of the plan goes to. Follows no
// link below the card folder. Returns their paths relative to the card folder. Throws IOError.
std::set<std::string, std::less<>> createTree(const std::string& cardPath, const OffloadPlan& plan);

} // namespace CardFolders

} // namespace velmora
