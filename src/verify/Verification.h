#pragma once

#include "base/Errors.h"
#include "records/OffloadReport.h"
#include "reports/ReportWriter.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The one place where the outcome of a verification becomes permanent on all destinations.
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

// Called ahead of each destination's write, with its card folder; what it throws counts as that destination's failure.
using BeforeCommit = std::function<void(const std::string& cardPath)>;

// Commits a report whose verification has ended to each destination in turn; a failure on one does not stop the others.
//
// Until the last destination holds its ASC MHL generation, every report on disk says that the result is incomplete.
// Only then are the reports replaced by ones without that mark, so that a power cut in between never leaves a report
// that promises more than stands on the other disks. If the mark cannot be taken off everywhere, it is put back.
Outcome commit(OffloadReport report, const std::vector<std::string>& cardPaths, const Log& log,
               const ReportWriter::Stamp& stamp, const BeforeCommit& beforeCommit = {});

} // namespace Verification

} // namespace velmora
