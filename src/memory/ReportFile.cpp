#include "memory/ReportFile.h"

#include "base/Errors.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "platform/IO.h"
#include "records/RecordReaders.h"

namespace velmora::ReportFile {

namespace {
// A report of a million files takes some 400 MB.
constexpr std::int64_t largestReport = 1LL << 30;

// A report lies two folders deep in a card folder, and no link below that is followed.
std::string bytesOf(const std::string& path) {
    const std::string cardPath(RelativePath::folder(RelativePath::folder(path)));
    return IO::readFileBeneath(cardPath, path.substr(cardPath.size() + 1), largestReport);
}
} // namespace

OffloadReport read(const std::string& path, const IsCancelled& isCancelled) {
    const std::string bytes = bytesOf(path);
    OffloadReport report;
    try {
        report = readReport(bytes, isCancelled);
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception&) { // the parser's own words would help no user
        throw OffloadError::failed(bytes.empty() ? "it is empty" : "it is damaged");
    }
    for (const auto& file : report.files)
        if (!isSafeRelative(file.path))
            throw OffloadError::failed("it names a file outside of the card folder: " + escapeForDisplay(file.path));
    return report;
}

} // namespace velmora::ReportFile
