#pragma once

#include "base/Errors.h"
#include "verify/FileChecks.h"
#include "verify/VerifyResult.h"
#include "verify/VerifyTask.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

struct SourceScan;

// Checks a card folder, at any time and without its card, against what was recorded when it was made: the ASC MHL, or
// the checksum lists of a folder that has none. Histories nested in folders of it are checked as well. Reads past the
// page cache, one file after another, and writes nothing.
// Every name in the records is hostile: one that would lead out of the folder is listed and never opened, and no link
// is followed.
namespace BackupVerifier {

using Expected = VerifyTask::Expected;
using Progress = VerifyProgressHook;

// What is wrong with files is data in the result. Throws OffloadError when there is no folder or nothing to compare
// with, MHLFormatError when a generation cannot be read, IOError when the folder cannot be read.
VerifyResult verify(const std::string& cardPath, std::size_t chunkSize, const Progress& progress,
                    const IsCancelled& isCancelled, PauseGate::Worker* pausing = nullptr);

bool isCardFolder(const std::string& path); // it has a folder "ascmhl"
// True when any record of a backup is there: an ASC MHL, a report, a checksum list, or the manifest of a run that died.
bool hasRecords(const std::string& path);
// The folder itself if it has records, else the folders directly inside it that have, sorted.
std::vector<std::string> cardFolders(const std::string& path);

bool ignored(std::string_view path, const std::vector<std::string>& patterns);

// The files of the checksum lists; none when no list names any. What is wrong with a list goes to
// `problems`: names that would leave the folder, damaged lines, a list that cannot be read. Throws Cancelled.
std::optional<std::vector<Expected>> hashLists(const std::string& cardPath, std::vector<std::string>& problems,
                                               const IsCancelled& isCancelled = {});

// Lists what lies in the folder and is neither in `known` nor ignored by a history of it.
void addExtra(VerifyResult& result, const SourceScan& scan, const std::set<std::string>& known,
              const std::vector<VerifyTask::Ignore>& ignore);

} // namespace BackupVerifier

} // namespace velmora
