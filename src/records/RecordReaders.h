#pragma once

#include "base/Errors.h"
#include "records/HistoryEntry.h"
#include "records/OffloadReport.h"

#include <string_view>

namespace velmora {

class JsonReader;

// Records straight from their text, without a tree of values between.

// OffloadReport::fromJson; throws Cancelled too.
OffloadReport readReport(std::string_view text, const IsCancelled& isCancelled);
// Throws FormatError, and leaves the reader somewhere in the entry then.
void fromReader(JsonReader& in, HistoryEntry& value);

} // namespace velmora
