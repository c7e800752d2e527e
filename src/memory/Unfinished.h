#pragma once

#include "records/ManifestRecord.h"
#include "records/OffloadReport.h"
#include "records/SourceFile.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace velmora {

// A generation that died before it was committed, as it lies on the disks. The lists run parallel to the card folders.
struct Unfinished {
    std::int64_t generation = 1;
    std::vector<std::vector<ManifestRecord>> manifests; // its lines, in the order of the file
    // Path keys of the files that a report on a disk already names: the generation must hold these, neither more nor
    // fewer.
    std::optional<std::unordered_set<std::string>> fixedFiles;
    std::shared_ptr<const OffloadReport> report;               // the newest that any disk has; null when it wrote none
    std::vector<std::shared_ptr<const OffloadReport>> reports; // per disk; null where it has none
    std::optional<std::string> mode;                           // what kind of run it was, if its first line tells
    std::vector<std::map<std::string, ManifestRecord>> files;  // by path key
    std::vector<std::map<std::string, PartCheckpoint>> parts;

    // What the manifest of a disk says of a file, if size and time are those of the card's file.
    const ManifestRecord* fileOf(std::size_t dest, const SourceFile& file, bool localTime) const;
    const PartCheckpoint* partOf(std::size_t dest, const SourceFile& file, bool localTime) const;
    // True when a manifest or the report of this generation names the path.
    bool mentions(const std::string& relPath) const;
    // The report of a run that had copied and read back all it could; only its records are not final everywhere. Null
    // when it had not, or when a disk was never flushed: then the copies have to be read again.
    std::shared_ptr<const OffloadReport> result() const;
    // True when a manifest or a report tells of a file: the run has left more than empty folders.
    bool holdsAnything() const;
    // Every path key that a manifest of this generation names.
    std::unordered_set<std::string> mentioned() const;
};

} // namespace velmora
