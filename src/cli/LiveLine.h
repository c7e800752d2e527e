#pragma once

#include "job/JobStatus.h"

#include <cstddef>
#include <string>
#include <vector>

namespace velmora {

class JobProgress;

// The one line that shows a running job on a terminal:
//
//   Copying 34 %  112/312 files  card 520, raid 260, shuttle 255 MB/s  0:41 left  A001C001.MOV
//
// On a narrow terminal the name of the file gives way first.
namespace LiveLine {

std::string compose(const JobStatus& status, const JobProgress& progress, const std::vector<std::string>& roots,
                    std::size_t columns);

// Short names for destination roots: the last component, or a number where two would read the same.
std::vector<std::string> diskNames(const std::vector<std::string>& roots);

} // namespace LiveLine

} // namespace velmora
