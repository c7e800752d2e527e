#include "job/ClipRecords.h"

#include "records/OffloadReport.h"
#include "reports/ReportWriter.h"

#include <algorithm>
#include <map>

namespace velmora::ClipRecords {

namespace {

std::ptrdiff_t knowledge(const OffloadReport& report) {
    std::ptrdiff_t known = 0;
    for (const ClipEntry& clip : report.clips)
        known += 1 + (clip.info || clip.probeError ? 1 : 0) + (clip.proxyStatus != ProxyStatus::none ? 1 : 0) +
                 (clip.content ? 1 : 0);
    return known;
}

OffloadReport withoutClips(OffloadReport report) {
    report.clips.clear();
    report.proxy.reset();
    report.proxyEncoder.reset();
    return report;
}

bool isFinal(const OffloadReport& report) {
    return !report.verifyPending.value_or(false) && !report.verifyIncomplete.value_or(false);
}

} // namespace

void bringInStep(const std::vector<CardRecord>& records, const std::function<void(const std::string&)>& check) {
    std::map<std::int64_t, const OffloadReport*> best;
    for (const CardRecord& record : records)
        for (const auto& generation : record.generations) {
            const OffloadReport*& most = best[generation.generation];
            if (most == nullptr || knowledge(*generation.report) > knowledge(*most))
                most = generation.report.get();
        }
    for (const CardRecord& record : records)
        for (const auto& [number, report, column] : record.generations) {
            const OffloadReport& most = *best[number];
            if (!isFinal(most) || !isFinal(*report) || knowledge(*report) == knowledge(most) ||
                withoutClips(*report) != withoutClips(most))
                continue;
            check(record.cardPath);
            ReportWriter::Pages(most).write(record.cardPath, false);
        }
}

} // namespace velmora::ClipRecords
