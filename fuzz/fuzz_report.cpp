#include "Stable.h"
#include "records/ClipEntry.h"
#include "records/OffloadReport.h"

// A report from a disk: reading it must not trust it, and what is derived from it must hold for any columns.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    std::string once;
    try {
        OffloadReport report = OffloadReport::fromJson(fuzz::textOf(data, size));
        if (report.success() == report.hasFailedFiles() || report.failedFiles().empty() != report.success())
            std::abort();
        report.countFiles();
        for (const OffloadReport::Destination& destination : report.destinations)
            if (destination.filesOK < 0 || destination.filesFailed < 0 ||
                destination.filesOK + destination.filesFailed > static_cast<std::int64_t>(report.files.size()))
                std::abort();
        (void)report.frameRateSummary();
        (void)report.copySeconds();
        (void)report.verifySeconds();
        (void)report.algorithms();
        once = report.jsonData();
    } catch (const FormatError&) {
        return 0;
    }
    if (OffloadReport::fromJson(once).jsonData() != once)
        std::abort();
    return 0;
}
