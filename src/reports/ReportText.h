#pragma once

#include <string>

namespace velmora {

struct OffloadReport;

// The report that a person reads: offload_report.txt.
//
//   OFFLOAD REPORT — OK
//   Card:        A001
//   Source:      /media/dit/A001 [exfat]
//   …
//
// Labels take 13 characters. Times are in the computer's time zone with their offset, sizes in powers of 1000. Lines
// that have nothing to say are left out; notes, skipped names and failed files follow after blank lines.
namespace ReportText {

std::string summary(const OffloadReport& report);

} // namespace ReportText

} // namespace velmora
