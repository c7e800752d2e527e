#pragma once

#include "base/Errors.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velmora {

// Files of a card folder that have to give way to new copies are never destroyed: they move below _REPORT/set-aside, to
// the folder of the generation that needed their place, and the report of that generation lists them.
namespace SetAside {

// Moves `relPath` of the card folder aside, for `generation`. The rename is on the medium when this returns. Follows no
// link below the card folder. Throws IOError.
void move(const std::string& cardPath, std::int64_t generation, const std::string& relPath);

// Puts a copy of the file aside; the file stays in its place. A file that cannot be read is moved instead.
void keep(const std::string& cardPath, std::int64_t generation, const std::string& relPath);

// Moves aside what stands under the report names of `generation` but is no such report: somebody else put it there. A
// text without its JSON report is moved too, since a run writes the JSON first.
void strangePages(const std::string& cardPath, std::int64_t generation);

// Frees the name `relPath` of the card folder for a new copy. What stands there moves aside, unless `isOwnWork` says
// that a dead run has left it: then it is deleted. With `isTwin` another file of the card differs from this one in case
// only. A disk that folds case may then show the other file under this name, so that one stays where it is.
void makeWay(const std::string& cardPath, std::int64_t generation, const std::string& relPath, bool isTwin,
             const std::function<bool(const FileFacts&)>& isOwnWork = {});

// Lists in the report all that lies aside for its generation in its card folders, links and folders too: what the run
// moved itself, and what runs had moved that died before they could write a report. `isCancelled` is asked at every
// 1000th name. A sentence for each folder that could not be read to its end.
std::vector<std::string> list(OffloadReport& report, const IsCancelled& isCancelled = {});

} // namespace SetAside

} // namespace velmora
