#include "memory/SameFolder.h"

#include "base/Text.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

namespace velmora {

namespace {

// The comparison form of a card folder's path.
std::string standardised(std::string_view path) {
    std::string out;
    for (const std::string_view part : split(path, '/', false))
        if (part != ".")
            out += "/" + std::string(part);
    return pathKey(out);
}

} // namespace

bool isSameFolder(const BackupPlace& recorded, const std::string& cardPath, const std::optional<std::string>& serial) {
    if (recorded.volumeSerial != serial)
        return false;
    if (standardised(recorded.cardPath) == standardised(cardPath))
        return true;
    if (!serial)
        return false;
    const std::string below = standardised(VolumeFacts::underRoot(cardPath));
    if (!IO::isGone(recorded.cardPath))
        return standardised(VolumeFacts::underRoot(recorded.cardPath)) == below;
    // The recorded path does not tell where the disk was mounted. But it ends with the path on the disk.
    return standardised(recorded.cardPath).ends_with(below);
}

} // namespace velmora
