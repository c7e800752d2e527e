#pragma once

#include "base/Errors.h"

#include <string>
#include <vector>

namespace velmora {

// The application-support folder, which holds settings, history, locks and tools, and what earlier names of the
// product have left beside it.
namespace AppSupport {

std::string folder();                     // nothing is created
std::vector<std::string> searchFolders(); // `folder()`, then the folders of the earlier names

// When there is no folder yet but one of an earlier name, copies that. The copy is made beside the target under a
// temporary name and renamed when it is complete and on the disk, so a crash leaves no half folder. Tools and locks
// stay where they are, and the old folder is not changed. Links are not followed. Nothing happens when an environment
// variable names the folder. Never throws: a copy that fails is a line of the log, leaves nothing and is tried again
// the next time, and so is one whose folder cannot be listed.
void migrate(const Log& log);

// The same for given folders: the first of `earlier` that exists.
void migrate(const std::string& target, const std::vector<std::string>& earlier, const Log& log);

} // namespace AppSupport

} // namespace velmora
