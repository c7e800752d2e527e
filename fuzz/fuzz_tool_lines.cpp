#include "Stable.h"
#include "base/Text.h"
#include "clips/ContentCheck.h"

// ffmpeg's two streams, with the names and texts of a hostile file in them. An odd first byte of a line makes it one of
// the error output.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    ContentCheck check;
    for (const std::string_view line : split(fuzz::textOf(data, size), '\n')) {
        if (line.empty())
            continue;
        if (line.front() % 2 != 0)
            check.errorLine(line.substr(1));
        else
            check.progressLine(line.substr(1));
    }
    ClipInfo info;
    info.frameRate = "30000/1001";
    info.timecode = "23:59:59;29";
    info.frames = 100;
    const ClipContent content = check.verdict({}, info);
    if ((content.state == ContentCheck::ok) == content.kind.has_value() || content.framesDecoded.value_or(-1) < 0)
        std::abort();
    if (!isValidUtf8(content.message.value_or("")) || content.message.value_or("").size() > 320)
        std::abort();
    return 0;
}
