#pragma once

#include "records/ManifestRecord.h"
#include "records/OffloadReport.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velmora {

class FolderState;

// A file as the newest report that names it records it.
struct RecordedFile {
    const OffloadReport::FileEntry* file = nullptr; // into `report`; never null
    std::int64_t generation = 1;
    std::shared_ptr<const OffloadReport> report; // never null
};

// What the reports in one card folder say, merged over all generations. When memory and disk disagree, the disk is the
// truth, and this is how the disk is read; nothing in the folder is ever changed here.
struct CardRecord {
    struct Generation {
        std::int64_t generation = 1;
        std::shared_ptr<const OffloadReport> report;
        std::optional<std::size_t> column = {}; // of this folder in the report
    };

    std::string cardPath;
    std::vector<Generation> generations;                 // ascending
    std::unordered_map<std::string, RecordedFile> files; // by path key
    std::unordered_map<std::string, RecordedFile> twins; // by path: files whose key another file holds in `files`
    bool reportMissing = false;                          // there is no first report
    std::optional<std::string> error;
    std::vector<std::string> problems;    // findings on single reports that leave the rest readable
    std::int64_t highestReportNumber = 0; // of the names in _REPORT, readable or not
    std::optional<std::string> volumeSerial;

    std::vector<ClipEntry> clips() const;       // of all generations, the newest of each name
    std::optional<std::string> project() const; // of the newest report that has one
    Timestamp started() const;
    Timestamp finished() const;
    bool verifyPending() const;
    std::vector<std::string> failedFiles() const; // relative paths, ascending
    bool verified() const;                        // every generation is
    // The newest record of a file; null when there is none. `exactly` asks for the very name: for a file whose name
    // differs from that of another file of the card in case only.
    const RecordedFile* find(const std::string& relPath, bool exactly) const;

    // Takes in the report of a further generation without reading it from the disk.
    void add(const std::shared_ptr<const OffloadReport>& report);

    // Always gives a record; what went wrong stands in it. Reports above `maxGeneration` are not read, so that a
    // half-made generation does not count. `serial` is the serial of the folder's volume if the caller knows it (or
    // knows that there is none); without it the volume is asked.
    static CardRecord load(const std::string& cardPath, std::optional<std::int64_t> maxGeneration = {},
                           const std::optional<std::optional<std::string>>& serial = {});
    // The same of reports that may have been read before. Throws Cancelled.
    static CardRecord load(FolderState& folder, std::optional<std::int64_t> maxGeneration = {},
                           const std::optional<std::optional<std::string>>& serial = {});

    // The number in "offload_report_NNNN.json"; 1 for "offload_report.json"; none for any other name.
    static std::optional<std::int64_t> numberedFile(std::string_view name);

    // The column of a folder in a report: that of the very same folder, on the same disk (isSameFolder). None for any
    // other, a moved or cloned one too: it is no part of the backup until its bytes were compared.
    static std::optional<std::size_t> columnOf(const OffloadReport& report, const std::string& cardPath,
                                               const std::optional<std::string>& serial);
    // The column of this folder in a report of its own, known since loading: for asking file by file.
    std::optional<std::size_t> column(const OffloadReport& report) const;
    // The status word of a file in this folder. Without a column it is never more than "written": nobody has proved
    // that the folder's copies are those of the card.
    std::string_view statusOf(const RecordedFile& recorded) const;
    // True when the file was read back and found good on this disk.
    static bool readBack(const RecordedFile& recorded, const std::string& cardPath,
                         const std::optional<std::string>& serial);
};

// How the files of a whole card stand over all their disks.
struct BackupState {
    std::int64_t failed = 0;
    std::int64_t unverified = 0;

    // Counts status words: "verified" nowhere, "written" and "pending" as unverified, everything else as failed.
    static BackupState of(const std::vector<std::string_view>& statuses);
};

// The sentences about the backup of a whole card, at the end of a job and before an eject.
namespace BackupMessage {

std::string failed(std::int64_t files);
std::string unverified(std::int64_t files);
std::string notInBackup(std::int64_t files);
std::string changed(const std::vector<std::string>& paths); // at least one
std::string unreadable(std::string_view error);
std::string elsewhereUnchecked(std::string_view cardPath);
std::string elsewhereLacks(std::string_view cardPath, std::int64_t files);

} // namespace BackupMessage

} // namespace velmora
