#include "Stable.h"
#include "base/Errors.h"
#include "base/RelativePath.h"
#include "mhl/GenerationParser.h"
#include "mhl/IgnorePatterns.h"
#include "mhl/MHLReader.h"

// A generation of any tool: however its bytes arrive it reads as the same, and no record of it leads out of the folder.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const std::string_view text = fuzz::textOf(data, size);
    MHLGeneration whole;
    try {
        whole = MHLReader::generationFromBytes(text, 1);
    } catch (const MHLFormatError&) {
        return 0;
    }
    GenerationParser parser(1);
    for (std::size_t at = 0; at < size; at += 7)
        parser.feed(text.substr(at, 7));
    const MHLGeneration pieces = parser.finish();
    if (pieces.files.size() != whole.files.size() || pieces.ignore != whole.ignore || pieces.tool != whole.tool ||
        pieces.refusedPaths != whole.refusedPaths)
        std::abort();
    for (std::size_t i = 0; i < whole.files.size(); ++i) {
        const MHLFileRecord& record = *whole.files[i];
        if (record.path != pieces.files[i]->path || record.hashes.size() != pieces.files[i]->hashes.size())
            std::abort();
        if (!isSafeRelative(record.path) || (record.previousPath && !isSafeRelative(*record.previousPath)))
            std::abort();
        if (record.size && *record.size < 0)
            std::abort();
    }
    (void)IgnorePatterns(whole.ignore).ignored("_REPORT/x");
    return 0;
}
