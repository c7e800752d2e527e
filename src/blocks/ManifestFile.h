#pragma once

#include "base/Errors.h"
#include "records/ManifestRecord.h"

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The durable memory of a card folder: `_REPORT/offload-manifest.jsonl`, one JSON object a line, only ever appended to.
// ManifestFile.cpp begins with what is on the disk after `append`, after its failure and after a power cut.
namespace ManifestFile {

inline constexpr std::string_view fileName = "offload-manifest.jsonl";

std::string path(const std::string& cardPath);

// Adds a line for each record and flushes them to the medium; no records, no effect. A torn last line is sealed off
// first, so that it never swallows a good one. Appends to one manifest in one process take turns. Throws IOError.
void append(const std::string& cardPath, std::span<const ManifestRecord> records);

// All records that can be read, in the order of the file. A missing or unreadable file gives none, a line that is
// damaged or absurdly long is passed over.
std::vector<ManifestRecord> read(const std::string& cardPath);
// The same without holding more than one record; false from `each` ends the reading.
void forEach(const std::string& cardPath, const std::function<bool(ManifestRecord&&)>& each);

// The finished files of a generation by path key; the last line of a path counts.
std::map<std::string, ManifestRecord> files(std::span<const ManifestRecord> records, std::int64_t generation);
// The resume points of a generation by path key. Lines that do not join on without a gap are passed over.
std::map<std::string, PartCheckpoint> parts(std::span<const ManifestRecord> records, std::int64_t generation);

} // namespace ManifestFile

} // namespace velmora
