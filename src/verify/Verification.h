#pragma once

#include "base/Errors.h"
#include "records/OffloadReport.h"
#include "reports/ReportWriter.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The one place where the outcome of a run becomes permanent on all its destinations.
namespace Verification {

struct Failure {
    std::size_t destination = 0;
    std::string cardPath;
    std::string error;
};

struct Outcome {
    OffloadReport report; // as it was finally committed
    std::vector<Failure> failures;

    bool complete() const noexcept { return failures.empty(); }
    // The sentence for the user when the result does not stand everywhere.
    std::optional<std::string> warning() const;
};

struct Order {
    std::vector<std::string> cardPaths;
    ReportWriter::Stamp stamp;
    bool create = false; // the reports of this generation must not be there yet
    // Called ahead of each write into a folder; what it throws counts as that folder's failure.
    std::function<void(const std::string& cardPath)> beforeWrite = {};
    // Called once, when every folder holds its records: says in the report what may be promised now. It must not throw.
    std::function<void(OffloadReport&, const std::vector<Failure>&)> judge = {};
    // Called when the judged reports are written. On false every report that can be written gets its mark back.
    std::function<bool()> stands = {};
};

// Commits a report in two passes over all folders; a failure on one folder does not stop the others.
//
// First pass, folder by folder: the report marked `verifyIncomplete`, the ASC MHL generation, the checksum lists. Then
// the whole is judged. Second pass: the report as judged, without the mark. So no report on any disk promises anything
// before every disk holds the records and the promise was made. When a folder fails, in either pass, the mark stays on
// all others, or is put back.
//
// A crash leaves each folder in one of four states: without a report of this generation, with a marked report and no
// generation, with both, or final. A later run finds one open generation in all of them and finishes it.
Outcome commit(OffloadReport report, const Order& order, const Log& log);

} // namespace Verification

} // namespace velmora
