#pragma once

#include "engine/RunRecorder.h"
#include "reports/ReportWriter.h"

#include <functional>
#include <optional>

namespace velmora {

// Writes what stands about a run on each of its destinations: reports, ASC MHL generation, checksum lists.
//
// The report goes first, the generation second. A crash between the two leaves a generation in the manifest that the
// chain does not hold, and that is what a later run finds and finishes. (A report that was laid down provisionally is
// made final the other way round, by ReportWriter::commit: there the chain says that the report may be replaced.)
class ReportRecorder : public RunRecorder {
public:
    // What only the job knows of a run and the report must tell.
    using Amend = std::function<void(OffloadReport&)>;

    // `replaces`: the run finishes an interrupted one, whose report may be there already.
    explicit ReportRecorder(bool replaces, Amend amend = {}) : replaces_(replaces), amend_(std::move(amend)) {}

    void write(Stage stage, const OffloadReport& report, const std::string& cardPath) override;

private:
    const bool replaces_;
    const Amend amend_;
    std::optional<ReportWriter::Stamp> stamp_; // of the first write, the same in all card folders
};

} // namespace velmora
