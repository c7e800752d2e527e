#pragma once

#include "base/Timestamp.h"
#include "records/OffloadReport.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Writes the ASC MHL history of a card folder: one generation file per backup, and a chain that pins each of them by a
// hash of its content. Format, order of the steps and what a crash leaves are told beside the code.
namespace MHL {

inline constexpr std::string_view dirName = "ascmhl";
inline constexpr std::string_view chainName = "ascmhl_chain.xml";

std::string c4(std::string_view data);

struct Entry {
    const OffloadReport::FileEntry* file = nullptr; // into the report
    std::string_view action;                        // "original", "verified", "failed"
};
// The files that a generation on destination number `destination` lists, in the order of the report.
std::vector<Entry> entries(const OffloadReport& report, std::size_t destination);

// Does the chain hold this report's generation already, safe on the medium? Throws OffloadError when it holds another
// one of that number, MHLFormatError and IOError.
bool hasGeneration(const OffloadReport& report, const std::string& cardPath);

// Adds the generation of this report. The caller holds the lock of the card folder. Throws OffloadError for the
// refusals (nothing has been changed then), MHLFormatError and IOError.
void write(const OffloadReport& report, const std::string& cardPath, Timestamp now, const std::string& host);

// The name of a generation file.
std::string generationName(std::int64_t seq, const std::string& cardPath, Timestamp now);

} // namespace MHL

} // namespace velmora
