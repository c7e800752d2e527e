#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

struct SourceFile;

// Files whose paths differ only in case (or in the Unicode form of a letter), and what becomes of them.
//
// On a destination that tells such names apart both are copied, each under its own name. On one that folds case they
// would be one file, and the later one would replace the earlier: there the first in the order of the scan is copied
// and every later one is failed, with `error`, so that the card is not safe to format. The disk itself decides, by the
// rename that never replaces: no list of keys can know every rule of every file system.
//
// Records are looked up without regard to case (manifest lines, merged reports, the MHL history). Whoever looks up one
// of these files must compare the record's path byte by byte, and treat the file as unrecorded unless it is the same.
// Copying a file once too often is harmless; taking another file's record for it is not.
namespace CaseFolding {

struct Collision {
    std::size_t file;  // position in the files of the scan
    std::size_t first; // the earlier file whose name it shares
};

// In ascending order of `file`. Keeps hashes of the keys, not the keys: 100,000 files cost a few MB for a moment.
std::vector<Collision> collisions(const std::vector<SourceFile>& files);

// The error of the later file, where the disk takes both names for one.
std::string error(std::string_view firstPath);

} // namespace CaseFolding

} // namespace velmora
