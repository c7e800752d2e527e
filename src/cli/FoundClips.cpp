#include "cli/FoundClips.h"

#include "cli/Console.h"
#include "cli/TerminalText.h"
#include "clips/ClipDetector.h"
#include "engine/Scanner.h"

#include <fmt/format.h>

namespace velmora {

FoundClips FoundClips::of(const std::string& source, Console& console, const IsCancelled& isCancelled) {
    const SourceScan scan = Scanner::scan(source, isCancelled);
    FoundClips found{ClipDetector::detect(scan.files), scan.uncopied.size()};
    for (const UncopiedItem& item : scan.uncopied) {
        console.log(TerminalText::printable(fmt::format("{}: {}", item.shown, item.error)));
        if (item.isFolder || !ClipDetector::detect({{item.shown, item.size, item.mtime}}).empty())
            found.mayLackClips = true;
    }
    return found;
}

} // namespace velmora
