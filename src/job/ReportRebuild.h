#pragma once

#include "memory/FolderState.h"

#include <functional>
#include <string>
#include <vector>

namespace velmora {

// A report that cannot be read on one disk of a backup stands byte for byte on the others. A repair makes it anew from
// there if both ASC MHL histories prove that it belongs to the folder. Both must be whole and hold the same
// generations. The history of the folder must list just the files that the report calls verified there, with the same
// digests.
namespace ReportRebuild {

// The broken file is kept below _REPORT/set-aside. `beforeWrite` is called ahead of each write into a folder and may
// throw. Gives a sentence for each report that was made anew; none where nothing is broken or nothing proves it.
std::vector<std::string> run(const std::vector<std::string>& cardPaths, const FolderStates& states,
                             const std::function<void(const std::string& cardPath)>& beforeWrite);

} // namespace ReportRebuild

} // namespace velmora
