#pragma once

#include "records/Clip.h"
#include "records/SourceFile.h"

#include <string_view>
#include <vector>

namespace velmora {

// Turns the file list of a card into camera clips, from paths, extensions and sizes alone: no file is opened.
// Pure functions, any thread, never fail.
namespace ClipDetector {

// One clip per video, Blackmagic RAW and Canon RAW file; the spanned segments of a RED clip ("_001", "_002", …) and all
// ARRIRAW frames of a folder are one clip each. Sorted by path as a file browser sorts: digit runs as numbers, case
// ignored; the sort is stable. Files in "_REPORT/" and "_PROXY/" at the root are passed over.
std::vector<Clip> detect(const std::vector<SourceFile>& files);

// A low-resolution file that the camera recorded beside the clip: a folder of the path is named "SUB" or "PROXY",
// in any case.
bool isCameraProxy(std::string_view path);

} // namespace ClipDetector

} // namespace velmora
