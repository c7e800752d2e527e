#pragma once

#include "base/Errors.h"
#include "mhl/MHLHistory.h"

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Reads the `ascmhl` folder of a card folder. It takes what any tool writes by the public format, trusts nothing of it
// and follows no link.
namespace MHLReader {

// A damaged chain is told in `chainProblems`; a generation that cannot be read throws MHLFormatError. A folder without
// a history gives one that does not exist. Throws IOError, and Cancelled when `isCancelled`, asked at every piece that
// is read, says so. The generations, and what is kept of them, may take `left` bytes, which are taken off it; a longer
// history is not read.
MHLHistory read(const std::string& cardPath, const IsCancelled& isCancelled = {}, std::int64_t* left = nullptr);
inline constexpr std::int64_t maxHistoryBytes = std::int64_t{2} << 30;

// The entries of the chain as they stand in the file. What keeps it from being read goes to `problems`.
std::vector<MHLChainEntry> readChain(const std::string& ascmhlDir, std::vector<std::string>& problems);
// Throws MHLFormatError and IOError.
MHLGeneration parseGeneration(const std::string& path, std::int64_t seq);

// The same on bytes in memory.
std::vector<MHLChainEntry> chainFromBytes(std::string_view bytes);
MHLGeneration generationFromBytes(std::string_view bytes, std::int64_t seq);

// ISO 8601 with "Z", an offset or no zone (read as UTC), with or without fractions of a second.
std::optional<Timestamp> parseDate(std::string_view text);
// The digits at the start of a file name.
std::optional<std::int64_t> leadingNumber(std::string_view name);
std::string describe(const std::exception& error);

} // namespace MHLReader

} // namespace velmora
