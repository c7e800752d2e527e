#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora {

// What can be wrong with a history, in the words that the user reads.
namespace MHLProblems {

std::string chainMissing();
std::string chainUnreadable(std::string_view error);
std::string fileMissing(std::int64_t seq, std::string_view path);
std::string changed(std::int64_t seq);
std::string notInChain(std::string_view fileName);
std::string skipped(std::int64_t seq);
std::string repeated(std::int64_t seq);
std::string sameFile(std::int64_t seq, std::int64_t earlier, std::string_view path);
// Of histories nested in folders of the card.
std::string inNested(std::string_view folder, std::string_view problem);
std::string nestedMissing(std::string_view folder);
std::string nestedDiffers(std::string_view fileName);
std::string noNested(std::int64_t seq, std::string_view path);
std::string tooManyNested();
std::string leavesFolder(std::int64_t seq, std::string_view path);

} // namespace MHLProblems

} // namespace velmora
