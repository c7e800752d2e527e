#pragma once

#include "base/Timestamp.h"
#include "records/OffloadReport.h"

#include <array>
#include <string>
#include <utility>

namespace velmora {

// Lays a report down in a card folder: `_REPORT/offload_report[_NNNN].json` and the same as `.txt`. Each is complete or
// absent. A JSON that is final stands beside a text that is final.
//
// Every step throws IOError, OffloadError or MHLFormatError; what was written before it stays.
namespace ReportWriter {

// Reads a JSON report; throws IOError, or std::runtime_error when it is not one.
OffloadReport read(const std::string& path);

// A report as the bytes of its files: encoded once, the same for every disk.
class Pages {
public:
    explicit Pages(const OffloadReport& report);
    // With `create` the files must not exist yet: a second writer of a generation fails (IOError "create", EEXIST, with
    // the path) and leaves the files of the first one. Else they are replaced atomically.
    void write(const std::string& cardPath, bool create) const;

private:
    std::array<std::pair<std::string, std::string>, 2> files_; // name, bytes
};

// The time and the computer's name that the ASC MHL generation states.
struct Stamp {
    Timestamp now;
    std::string host;
    static Stamp present();
};

// Writes the report, then the ASC MHL generation unless it stands there already, then the checksum lists. A generation
// that stands with other contents refuses before the report is touched. Repeating it after a crash or a failure
// finishes what is missing. `pages` are those of `report`.
void commit(const OffloadReport& report, const Pages& pages, const std::string& cardPath, const Stamp& stamp,
            bool create);

} // namespace ReportWriter

} // namespace velmora
