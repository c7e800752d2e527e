#pragma once

#include "base/Errors.h"
#include "records/OffloadReport.h"

#include <string>

namespace velmora {

// Reads a report from a disk. Whatever lies there is hostile until it is parsed: its size is bounded, and a path that
// would leave the card folder makes the whole report unreadable.
namespace ReportFile {

// Throws IOError, Cancelled, or OffloadError whose text says in plain words what is wrong.
OffloadReport read(const std::string& path, const IsCancelled& isCancelled = {});

} // namespace ReportFile

} // namespace velmora
