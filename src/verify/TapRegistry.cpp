#include "verify/TapRegistry.h"

#include "base/RelativePath.h"
#include "base/Text.h"

#include <algorithm>

namespace velmora {

bool TapRegistry::isHttp(std::string_view path) {
    return std::ranges::find(httpExtensions, toLower(RelativePath::extension(path))) != httpExtensions.end();
}

TapMode TapRegistry::mode(const Clip& clip) {
    switch (clip.format) {
    case ClipFormat::braw:
    case ClipFormat::r3d:
    case ClipFormat::arriraw:
        return TapMode::preRead;
    case ClipFormat::video:
        return isHttp(clip.path) ? TapMode::http : TapMode::none;
    case ClipFormat::canonRaw:
    case ClipFormat::unknown:
        break;
    }
    return TapMode::none;
}

} // namespace velmora
