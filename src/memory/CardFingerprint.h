#pragma once

#include "records/SourceFile.h"

#include <string>
#include <vector>

namespace velmora {

// What a card holds, in two SHA-256 digests over names, sizes and times: recognition takes one directory scan and reads
// no file. Pure, any thread.
namespace CardFingerprint {

struct Digests {
    std::string fingerprint; // paths, sizes and times; 64 lower-case hex digits
    std::string shape;       // paths and sizes only: survives a file system that rounds or shifts times

    bool operator==(const Digests&) const = default;
};

// The files may come in any order; they are taken by path in the order of UTF-16 code units, the order in which earlier
// versions of these records were made.
Digests compute(const std::vector<SourceFile>& files);

} // namespace CardFingerprint

} // namespace velmora
