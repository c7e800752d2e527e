#include "OnDisk.h"
#include "platform/VolumeFacts.h"

// A mount table with any names in it: it answers, and lists no volume outside of the places where users' volumes are.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmora;
    const VolumeFacts::System system{.mountinfo = fuzz::onDisk("mountinfo", data, size),
                                     .sysfs = fuzz::folder() + "/sys"};
    for (const VolumeFacts::Mount& mount : VolumeFacts::userVolumes(system))
        if (!VolumeFacts::isUserVolumePath(mount.mountPoint))
            std::abort();
    for (const std::string path : {"/", "/media/dit/A001/DCIM"}) {
        (void)VolumeFacts::mount(path, system);
        (void)VolumeFacts::isInternal(path, system);
        (void)VolumeFacts::isSystemDisk(path, system);
        (void)VolumeFacts::underRoot(path, system);
    }
    return 0;
}
