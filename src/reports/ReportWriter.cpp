#include "reports/ReportWriter.h"

#include "base/Errors.h"
#include "engine/Layout.h"
#include "mhl/MHL.h"
#include "platform/HostName.h"
#include "platform/IO.h"
#include "reports/HashLists.h"
#include "reports/ReportText.h"

#include <cerrno>
#include <fmt/format.h>
#include <utility>

namespace velmora::ReportWriter {

namespace {

// A report of 100,000 files takes about 40 MB; anything much longer is not ours.
constexpr std::int64_t longestReport = 1LL << 30;

} // namespace

Stamp Stamp::present() { return {Timestamp::now(), hostName()}; }

OffloadReport read(const std::string& path) { return OffloadReport::fromJson(IO::readFile(path, longestReport)); }

// Encoded before anything is written: a report that cannot be encoded leaves nothing behind. The JSON tells the next
// run what is still to be done. It bears the mark as long as the text may bear it: of two marked pages it is the first
// to be written, of two final ones the last.
Pages::Pages(const OffloadReport& report)
    : files_{{{OffloadReport::jsonName(report.generationNumber()), report.jsonData()},
              {OffloadReport::textName(report.generationNumber()), ReportText::summary(report)}}} {
    if (!report.verifyPending.value_or(false) && !report.verifyIncomplete.value_or(false))
        std::swap(files_[0], files_[1]);
}

void Pages::write(const std::string& cardPath, bool create) const {
    const std::string folder = fmt::format("{}/{}", cardPath, Layout::reportDirName);
    IO::mkdirBelow(folder);
    if (create) {
        for (const auto& [name, bytes] : files_)
            if (const std::string path = folder + "/" + name; IO::exists(path))
                throw IOError("create", path, EEXIST);
    }
    // Also when the folder was there: a run that was killed may have made it a moment ago.
    IO::syncFolder(cardPath);
    for (const auto& [name, bytes] : files_) {
        const std::string path = folder + "/" + name;
        create ? IO::writeFileNew(path, bytes) : IO::writeFileDurably(path, bytes);
    }
}

void commit(const OffloadReport& report, const Pages& pages, const std::string& cardPath, const Stamp& stamp,
            bool create) {
    if (report.verifyPending.value_or(false))
        throw OffloadError::failed("A report whose verification is still pending is never committed.");
    const bool isChained = MHL::hasGeneration(report, cardPath);
    pages.write(cardPath, create);
    if (!isChained)
        MHL::write(report, cardPath, stamp.now, stamp.host);
    HashLists::write(report, cardPath, !create);
}

} // namespace velmora::ReportWriter
