#include "reports/ReportWriter.h"

#include "base/Errors.h"
#include "engine/Layout.h"
#include "mhl/MHL.h"
#include "platform/HostName.h"
#include "platform/IO.h"
#include "reports/HashLists.h"
#include "reports/ReportText.h"

#include <array>
#include <cerrno>
#include <fmt/format.h>
#include <utility>

namespace velmora::ReportWriter {

namespace {

// A report of 100,000 files takes about 40 MB; anything much longer is not ours.
constexpr std::int64_t longestReport = 1LL << 30;

std::string folderOf(const std::string& cardPath) { return fmt::format("{}/{}", cardPath, Layout::reportDirName); }

} // namespace

Stamp Stamp::present() { return {Timestamp::now(), hostName()}; }

OffloadReport read(const std::string& path) { return OffloadReport::fromJson(IO::readFile(path, longestReport)); }

bool exists(const std::string& cardPath, std::int64_t generation) {
    return IO::exists(folderOf(cardPath) + "/" + OffloadReport::jsonName(generation));
}

void writeReports(const OffloadReport& report, const std::string& cardPath, bool create) {
    const std::string folder = folderOf(cardPath);
    const auto generation = report.generationNumber();
    // The contents first: a report that cannot be encoded leaves nothing behind.
    const std::array<std::pair<std::string, std::string>, 2> files = {{
        {folder + "/" + OffloadReport::jsonName(generation), report.jsonData()},
        {folder + "/" + OffloadReport::textName(generation), ReportText::summary(report)},
    }};
    IO::mkdirs(folder);
    if (create) {
        for (const auto& [path, bytes] : files)
            if (IO::exists(path))
                throw IOError("create", path, EEXIST);
    }
    // Also when the folder was there: a run that was killed may have made it a moment ago.
    IO::syncFolder(cardPath);
    for (const auto& [path, bytes] : files)
        create ? IO::writeFileNew(path, bytes) : IO::writeFileDurably(path, bytes);
}

void write(const OffloadReport& report, const std::string& cardPath, bool includeHashRecords, const Stamp& stamp,
           std::optional<bool> createNew) {
    writeReports(report, cardPath, createNew.value_or(includeHashRecords && report.generationNumber() > 1));
    if (!includeHashRecords)
        return;
    MHL::write(report, cardPath, stamp.now, stamp.host);
    HashLists::write(report, cardPath, false);
}

void commit(const OffloadReport& report, const std::string& cardPath, const Stamp& stamp) {
    if (report.verifyPending.value_or(false))
        throw OffloadError::failed("A report whose verification is still pending is never committed.");
    if (!MHL::hasGeneration(report, cardPath))
        MHL::write(report, cardPath, stamp.now, stamp.host);
    writeReports(report, cardPath, false);
    HashLists::write(report, cardPath, true);
}

} // namespace velmora::ReportWriter
