#pragma once

#include "records/OffloadReport.h"

#include <cstdint>
#include <string>

namespace velmora {

// Files of a card folder that have to give way to new copies are never destroyed: they move below _REPORT/set-aside, to
// the folder of the generation that needed their place, and the report of that generation lists them.
namespace SetAside {

// Moves `relPath` of the card folder aside, for `generation`. The rename is on the medium when this returns. Follows no
// link below the card folder. Throws IOError.
void move(const std::string& cardPath, std::int64_t generation, const std::string& relPath);

// Lists in the report all that lies aside for its generation in its card folders: what the run moved itself, and what
// runs had moved that died before they could write a report. What cannot be read is left out.
void list(OffloadReport& report);

} // namespace SetAside

} // namespace velmora
