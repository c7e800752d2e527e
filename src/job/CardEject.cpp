#include "job/CardEject.h"

#include "platform/Eject.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

namespace velmora {

std::optional<std::string> CardEject::problem(const Facts& facts) {
    if (!facts.exists)
        return "card is not connected";
    if (!facts.isLocal)
        return "a network folder is not ejected";
    if (!facts.isVolumeRoot)
        return "the source is a folder, not a whole card";
    if (facts.isSystem)
        return "the system disk cannot be ejected";
    if (facts.isInternal)
        return "an internal disk cannot be ejected";
    return std::nullopt;
}

std::optional<std::string> CardEject::problem(const std::string& source) {
    const std::optional<VolumeFacts::Mount> mount = VolumeFacts::mount(source);
    return problem({.exists = !IO::isGone(source) && mount,
                    .isVolumeRoot = VolumeFacts::isVolumeRoot(source),
                    .isLocal = !mount || mount->local,
                    .isInternal = VolumeFacts::isInternal(source),
                    .isSystem = VolumeFacts::isSystemDisk(source)});
}

std::optional<std::string> CardEject::eject(const std::string& source) {
    if (auto reason = problem(source))
        return reason;
    const std::optional<VolumeFacts::Mount> mount = VolumeFacts::mount(source);
    return mount ? Eject::disk(mount->device) : std::optional<std::string>("card is not connected");
}

} // namespace velmora
