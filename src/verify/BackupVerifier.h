#pragma once

#include "base/Errors.h"
#include "mhl/MHLHistory.h"
#include "verify/VerifyResult.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Checks a card folder, at any time and without its card, against what was recorded when it was made: the ASC MHL, or
// the checksum lists of a folder that has none. Reads past the page cache, one file after another, and writes nothing.
// Every name in the records is hostile: one that would lead out of the folder is listed and never opened, and no link
// is followed.
namespace BackupVerifier {

// One file to be read.
struct Expected {
    std::string path;
    std::optional<std::int64_t> size;
    std::vector<MHLHash> hashes;
};

using Progress = std::function<void(const VerifyProgress&)>;

// What is wrong with files is data in the result. Throws OffloadError when there is no folder or nothing to compare
// with, MHLFormatError when a generation cannot be read, IOError when the folder cannot be.
VerifyResult verify(const std::string& cardPath, std::size_t chunkSize, const Progress& progress,
                    const IsCancelled& isCancelled);

bool isCardFolder(const std::string& path); // it has a folder "ascmhl"
// The folder itself if it is one, else the card folders directly inside it, sorted.
std::vector<std::string> cardFolders(const std::string& path);

bool ignored(std::string_view path, const std::vector<std::string>& patterns);

// The files of the checksum lists; none when no list names any. What is wrong with a list goes to
// `problems`: names that would leave the folder, damaged lines, a list that cannot be read.
std::optional<std::vector<Expected>> hashLists(const std::string& cardPath, std::vector<std::string>& problems);

// Lists what lies in the folder and is neither in `known` nor ignored.
void addExtra(VerifyResult& result, const std::string& cardPath, const std::set<std::string>& known,
              const std::vector<std::string>& patterns, const IsCancelled& isCancelled);

} // namespace BackupVerifier

} // namespace velmora
