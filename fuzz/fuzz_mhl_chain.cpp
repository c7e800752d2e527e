#include "Stable.h"
#include "base/Errors.h"
#include "mhl/GenerationParser.h"
#include "mhl/MHLReader.h"

// A chain file: however its bytes arrive it reads as the same, and its numbers are numbers.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const std::string_view text = fuzz::textOf(data, size);
    std::vector<MHLChainEntry> whole;
    try {
        whole = MHLReader::chainFromBytes(text);
    } catch (const MHLFormatError&) {
        return 0;
    }
    ChainParser parser;
    for (std::size_t at = 0; at < size; at += 5)
        parser.feed(text.substr(at, 5));
    const std::vector<MHLChainEntry> pieces = parser.finish();
    if (pieces.size() != whole.size())
        std::abort();
    for (std::size_t i = 0; i < whole.size(); ++i)
        if (whole[i].seq < 1 || whole[i].seq != pieces[i].seq || whole[i].path != pieces[i].path ||
            whole[i].c4 != pieces[i].c4)
            std::abort();
    return 0;
}
