#include "job/ReportRecorder.h"

#include "mhl/MHL.h"
#include "reports/HashLists.h"

namespace velmora {

void ReportRecorder::write(Stage stage, const OffloadReport& built, const std::string& cardPath) {
    OffloadReport amended;
    if (amend_) {
        amended = built;
        amend_(amended);
    }
    const OffloadReport& report = amend_ ? amended : built;
    if (!stamp_)
        stamp_ = ReportWriter::Stamp::present();
    // A generation that stands with other contents refuses before its report is touched.
    const bool isChained = stage != Stage::pending && MHL::hasGeneration(report, cardPath);
    ReportWriter::writeReports(report, cardPath, !replaces_);
    if (stage == Stage::pending)
        return;
    if (!isChained)
        MHL::write(report, cardPath, stamp_->now, stamp_->host);
    HashLists::write(report, cardPath, false);
}

} // namespace velmora
