#pragma once

#include "memory/CardRecord.h"
#include "memory/FolderState.h"
#include "records/BackupPlace.h"

#include <string>
#include <vector>

namespace velmora {

// Which folders hold a copy of one card, from everything that knows: the reports of all generations, the first lines
// of runs, a report that is not final, the card history. A folder is told from others by its disk's serial, wherever
// that is mounted today; by its path where the serial says nothing.
namespace BackupPlaces {

// The folders that are not among `records`, which are those that a run was given. `known` adds what no report in
// `records` says; a place without a serial counts only if no other source knows its path. The places of one of `groups`
// belong together, and to this backup if one of them does. A folder that is found so is read too, and the folders that
// its records name count as well, and so on until no new one appears: a disk that is away may be named only by a folder
// that was not given to this run. At most a hundred folders are read; those found beyond them are listed all the same.
// Throws Cancelled.
std::vector<BackupPlace> beside(const std::vector<CardRecord>& records, std::vector<BackupPlace> known,
                                std::vector<std::vector<BackupPlace>> groups, const FolderStates& folders);

} // namespace BackupPlaces

} // namespace velmora
