#pragma once

#include "memory/CardRecord.h"

#include <functional>
#include <string>
#include <vector>

namespace velmora::ClipRecords {

// A run that was killed while it wrote the clips into final reports has done so on some disks only. The report that
// knows most about the clips then replaces those that differ from it in nothing else. `check` is called ahead of each
// write. Throws what `check` throws, and IOError.
void bringInStep(const std::vector<CardRecord>& records, const std::function<void(const std::string&)>& check);

} // namespace velmora::ClipRecords
