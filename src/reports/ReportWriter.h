#pragma once

#include "base/Timestamp.h"
#include "records/OffloadReport.h"

#include <optional>
#include <string>

namespace velmora {

// Lays a report down in a card folder. What is on disk after each step, in `_REPORT` unless said otherwise:
//
//   writeReports(create)    offload_report[_NNNN].json, then .txt. Each is complete or absent; an existing one is
//                           never replaced, so a second writer of a generation fails and leaves the first one's files.
//   write                   the above; then, with hash records, the ASC MHL generation, then the checksum lists.
//   commit                  ASC MHL generation first, then the final report files, then the lists. A crash between two
//                           steps leaves a chain that a later run can hold against the report; the other order could
//                           leave a report that claims a generation which was never written.
//
// Every step throws IOError, OffloadError or MHLFormatError; what was written before it stays.
namespace ReportWriter {

// Reads a JSON report; throws IOError, or std::runtime_error when it is not one.
OffloadReport read(const std::string& path);

// Whether a card folder holds a report of that generation.
bool exists(const std::string& cardPath, std::int64_t generation);

// `create`: the files must not exist yet (IOError "create", EEXIST, with the path); else they are replaced atomically.
void writeReports(const OffloadReport& report, const std::string& cardPath, bool create);

// The time and the computer's name that the ASC MHL generation states.
struct Stamp {
    Timestamp now;
    std::string host;
    static Stamp present();
};

// Without `createNew`, files are created anew exactly for hash records of a later generation.
void write(const OffloadReport& report, const std::string& cardPath, bool includeHashRecords, const Stamp& stamp,
           std::optional<bool> createNew = std::nullopt);

// Makes a report final on one destination. Repeating it after a crash or a failure finishes what is missing.
void commit(const OffloadReport& report, const std::string& cardPath, const Stamp& stamp);

} // namespace ReportWriter

} // namespace velmora
