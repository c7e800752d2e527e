#pragma once

#include "base/Errors.h"
#include "records/OffloadReport.h"

#include <string>

namespace velmora {

// Reads a report from a disk. Its contents are not trusted until they are parsed: the size is bounded, and a path that
// would leave the card folder makes the whole report unreadable.
namespace ReportFile {

// Throws IOError, Cancelled, or OffloadError whose text says in plain words what is wrong.
OffloadReport read(const std::string& path, const IsCancelled& isCancelled = {});

} // namespace ReportFile

} // namespace velmora
