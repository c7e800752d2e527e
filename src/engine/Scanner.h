#pragma once

#include "base/Errors.h"

#include <string>

namespace velmora {

struct SourceScan;

// Lists a card. Follows no link, so that nothing outside the card's own file system is reached through one. Opens
// nothing but folders.
//
// Files and folders that cannot be copied are not passed over in silence: they stand in `SourceScan::uncopied`, become
// failed files with a source error, and the card is then not safe to format. These are
//  - a file whose name no record can hold (not UTF-8, or a character that text files and XML cannot carry),
//  - everything below a folder with such a name, and the folder itself,
//  - a folder that cannot be opened or read to its end.
namespace Scanner {

// Throws OffloadError (`noReadAccess`) when the system does not let this program read the card, IOError("scan") when
// `root` cannot be listed at all, IOError("stat") when an entry cannot be looked at, Cancelled when `isCancelled`,
// asked at every 1000th path, says so. Two threads walk the card, so `isCancelled` is asked on either.
SourceScan scan(const std::string& root, const IsCancelled& isCancelled = {});

// Throws OffloadError (`noReadAccess`) if the folder may not be listed; every other failure passes here and shows
// itself in the scan.
void checkReadAccess(const std::string& path);

} // namespace Scanner

} // namespace velmora
