#include "disks/CardIdentity.h"

#include "base/Errors.h"
#include "platform/File.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

namespace velmora {

std::optional<std::string> CardIdentity::of(const std::string& path) {
    if (IO::isGone(path))
        return std::nullopt;
    if (auto uuid = VolumeFacts::volumeUUID(path); uuid && !uuid->empty())
        return uuid;
    // Only a medium without a UUID needs its date: the date is not known to every account on every system, and an
    // identity must come out the same whoever asks.
    if (const auto created = VolumeFacts::created(path))
        return "created:" + std::to_string(created->seconds + (created->nanoseconds >= 500'000'000 ? 1 : 0));
    return std::nullopt;
}

std::optional<std::string> CardIdentity::withVolume(const std::string& path) {
    std::optional<std::string> identity = of(path);
    if (!identity)
        return std::nullopt;
    const std::string label = VolumeFacts::label(path).value_or("");
    return *identity + "|" + label + "|" + std::to_string(VolumeFacts::capacity(path));
}

std::optional<std::string> CardIdentity::momentary(const std::string& path) {
    if (auto identity = withVolume(path))
        return identity;
    try {
        const FileFacts folder = IO::stat(path);
        return "folder " + std::to_string(folder.device) + ":" + std::to_string(folder.inode);
    } catch (const IOError&) {
        return std::nullopt;
    }
}

} // namespace velmora
