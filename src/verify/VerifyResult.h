#pragma once

#include "base/Timestamp.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// What the check of one card folder against its own records found.
struct VerifyResult {
    struct Unreadable {
        std::string path;
        std::string error;
        bool isRecorded = true; // false: a folder in which strangers were looked for
    };

    std::string cardPath;
    Timestamp started;
    Timestamp finished;
    std::string basis; // "ascmhl", "hashList", "report" (all else is gone) or "pending"
    std::int64_t generations = 0;
    std::int64_t nestedHistories = 0; // ASC MHL histories of folders inside, which were checked as well
    std::vector<std::string> hashAlgorithms;
    std::int64_t totalFiles = 0;   // in the record
    std::int64_t totalBytes = 0;   // as recorded
    std::int64_t onlyInReport = 0; // of them, files that no ASC MHL generation lists: never read back after their copy
    std::int64_t ok = 0;
    std::vector<std::string> changed;          // the content differs from the record
    std::vector<std::string> missing;          // in the record, not on the disk
    std::vector<std::string> extra;            // on the disk, not in the record
    std::vector<std::string> failedAtCopy;     // the record says that the copy failed, and no older one is valid
    std::vector<std::string> failedSuperseded; // the newest record failed; an older generation was used
    std::vector<Unreadable> unreadable;
    std::vector<std::string> chainProblems;
    std::int64_t checked = 0; // files that were read to their end
    std::int64_t bytesRead = 0;
    bool cancelled = false;
    bool folderGone = false;
    bool reportInsideCard = false; // the history ignores _REPORT, so a report may lie there
    bool unfinished = false;       // the newest generation never got to its end
    bool copyBrokeOff = false;     // its copy, append or repair died; false when only its verification did not end
    bool onOtherDisk = false;      // the serial of the disk is none that the newest report names: a copy of the backup
    std::optional<std::string> volumeSerial = {}; // of the disk

    // No file is wrong. Extra files, superseded failures and problems of the chain are warnings.
    bool success() const { return changed.empty() && missing.empty() && unreadable.empty() && failedAtCopy.empty(); }
    // The one answer of a verification: its sentence, its exit status and what the history keeps follow from it.
    enum class Verdict {
        clean, // everything that was recorded is here as it was recorded
        folderGone,
        cancelled,
        filesWrong,
        unfinished,
        nothingCompared, // no file is wrong, and none is right either
        recordsDamaged,
    };
    Verdict verdict() const {
        return folderGone               ? Verdict::folderGone
               : cancelled              ? Verdict::cancelled
               : !success()             ? Verdict::filesWrong
               : unfinished             ? Verdict::unfinished
               : ok == 0                ? Verdict::nothingCompared
               : !chainProblems.empty() ? Verdict::recordsDamaged
                                        : Verdict::clean;
    }
};

struct VerifyProgress {
    std::string file;
    std::int64_t fileIndex = 0; // from 0
    std::int64_t fileCount = 0;
    std::int64_t bytes = 0; // read so far, of all files
    std::int64_t totalBytes = 0;
};

} // namespace velmora
