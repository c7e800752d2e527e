#include "platform/HeldFolder.h"

#include "base/Errors.h"
#include "platform/linux/Descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>

namespace velmora {

class HeldFolder::Handle : public Descriptor {
public:
    using Descriptor::Descriptor;
};

// The number of a mount is not given to another one as long as a descriptor holds something below it.
HeldFolder::Identity HeldFolder::identityOf(int folder, const std::string& path) {
    struct statx facts{};
    velmora::check(::statx(folder, path.c_str(), AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &facts), "stat", path);
    const std::uint64_t mount = (facts.stx_mask & STATX_MNT_ID) != 0 ? facts.stx_mnt_id : 0;
    return {makedev(facts.stx_dev_major, facts.stx_dev_minor), facts.stx_ino, mount};
}

HeldFolder::HeldFolder(const std::string& path) : HeldFolder(AT_FDCWD, path, path) {}

HeldFolder::HeldFolder(int above, const std::string& relative, std::string path)
    : path_(std::move(path)), probe_(path_ + "/.") {
    const int fd = ::openat(above, (relative + "/.").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    velmora::check(fd, "open", path_);
    handle_ = std::make_unique<Handle>(fd);
    identity_ = identityOf(fd, "");
}

HeldFolder HeldFolder::below(const std::string& relative) const {
    return {handle_->get(), relative, path_ + "/" + relative};
}

HeldFolder::~HeldFolder() = default;
HeldFolder::HeldFolder(HeldFolder&&) noexcept = default;

int HeldFolder::descriptor() const noexcept { return handle_->get(); }

void HeldFolder::check() const {
    Identity now;
    try {
        now = identityOf(AT_FDCWD, probe_);
    } catch (const IOError& error) {
        throw IOError("stat", path_, error.code());
    }
    if (now != identity_)
        throw IOError("stat", path_, ESTALE);
}

} // namespace velmora
