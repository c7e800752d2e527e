#pragma once

#include "memory/CardRecord.h"

#include <functional>
#include <string>
#include <vector>

namespace velmora::ClipRecords {

// A run that was killed while it told a final report of the clips has told it on some disks only. There the report that
// knows most of the clips takes the place of those that say the same otherwise. `check` is called ahead of each write.
// Throws what it throws, and IOError.
void bringInStep(const std::vector<CardRecord>& records, const std::function<void(const std::string&)>& check);

} // namespace velmora::ClipRecords
