#include "mhl/MHLProblems.h"

#include <fmt/format.h>

namespace velmora {

std::string MHLProblems::chainMissing() {
    return "ascmhl_chain.xml is missing — generations are read by the number in the file name.";
}

std::string MHLProblems::chainUnreadable(std::string_view error) {
    return fmt::format("Cannot read ascmhl_chain.xml: {}", error);
}

std::string MHLProblems::fileMissing(std::int64_t seq, std::string_view path) {
    return fmt::format("The ASC MHL chain lists generation {:04d}, but its file is missing: {}", seq, path);
}

std::string MHLProblems::changed(std::int64_t seq) {
    return fmt::format("ASC MHL generation {} does not match the chain (the MHL file was changed).", seq);
}

std::string MHLProblems::notInChain(std::string_view fileName) {
    return fmt::format("ASC MHL file not in the chain: {}", fileName);
}

std::string MHLProblems::skipped(std::int64_t seq) {
    return fmt::format("The ASC MHL chain does not list generation {:04d}.", seq);
}

std::string MHLProblems::repeated(std::int64_t seq) {
    return fmt::format("The ASC MHL chain lists generation {:04d} more than once.", seq);
}

std::string MHLProblems::sameFile(std::int64_t seq, std::int64_t earlier, std::string_view path) {
    return fmt::format("The ASC MHL chain names the file of generation {:04d} again for generation {:04d}: {}", earlier,
                       seq, path);
}

std::string MHLProblems::inNested(std::string_view folder, std::string_view problem) {
    return fmt::format("{}: {}", folder, problem);
}

std::string MHLProblems::nestedMissing(std::string_view folder) {
    return fmt::format("The ASC MHL names a nested history, but it is missing: {}", folder);
}

std::string MHLProblems::nestedDiffers(std::string_view fileName) {
    return fmt::format("The history above names the generation {} with another content than the one that is there.",
                       fileName);
}

std::string MHLProblems::noNested(std::int64_t seq, std::string_view path) {
    return fmt::format("ASC MHL generation {} refers to {}, which is no generation of a nested history.", seq, path);
}

std::string MHLProblems::tooManyNested() {
    return "The ASC MHL names too many nested histories — the rest of them was not read.";
}

std::string MHLProblems::leavesFolder(std::int64_t seq, std::string_view path) {
    // The text comes from a stranger: it must not draw on a terminal or in a report.
    constexpr std::size_t shown = 200;
    std::string safe;
    for (const char c : path.substr(0, shown)) {
        safe += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    }
    return fmt::format("ASC MHL generation {} lists a path outside the card folder, which is left aside: \"{}\"", seq,
                       safe);
}

} // namespace velmora
