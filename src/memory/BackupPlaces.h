#pragma once

#include "memory/CardRecord.h"
#include "records/BackupPlace.h"

#include <string>
#include <vector>

namespace velmora {

// Which folders hold a copy of one card, from everything that knows: the reports of all generations, the first lines
// of runs, a report that is not final, the card history. A folder is told from others by its disk's serial, wherever
// that is mounted today; by its path where the serial says nothing.
namespace BackupPlaces {

// The folders that are not among `records`, which are those that a run was given. `known` adds what no report in
// `records` says; a place without a serial counts only if no other source knows its path.
std::vector<BackupPlace> beside(const std::vector<CardRecord>& records, const std::vector<BackupPlace>& known);

} // namespace BackupPlaces

} // namespace velmora
