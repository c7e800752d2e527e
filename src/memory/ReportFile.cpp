#include "memory/ReportFile.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "platform/IO.h"

namespace velmora::ReportFile {

namespace {
// A report of a million files takes some 400 MB.
constexpr std::int64_t largestReport = 1LL << 30;
} // namespace

OffloadReport read(const std::string& path) {
    OffloadReport report = OffloadReport::fromJson(IO::readFile(path, largestReport));
    for (const auto& file : report.files)
        if (!isSafeRelative(file.path))
            throw OffloadError::failed("it names a file outside of the card folder: " + escapeForDisplay(file.path));
    return report;
}

bool same(const std::string& path, const std::string& other) {
    return IO::readFile(path, largestReport) == IO::readFile(other, largestReport);
}

} // namespace velmora::ReportFile
