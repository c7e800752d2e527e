#pragma once

#include "records/SourceFile.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The files of a remembered card, for a file-by-file comparison when its fingerprint has changed. Format: gzip around
// one line a file, in the order given: relative path, tab, size in bytes, tab, ticks (100 ns since 0001-01-01), line
// feed.
namespace FileListStore {

// Creates missing folders; replaces atomically. Throws IOError.
void write(const std::string& path, const std::vector<SourceFile>& files);

// Nothing when the file is missing, damaged, or longer than any card's list (256 MiB unpacked).
std::optional<std::vector<SourceFile>> read(const std::string& path);

} // namespace FileListStore

} // namespace velmora
