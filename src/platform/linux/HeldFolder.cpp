#include "platform/HeldFolder.h"

#include "base/Errors.h"
#include "platform/IO.h"
#include "platform/linux/Descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

namespace velmora {

class HeldFolder::Handle : public Descriptor {
public:
    using Descriptor::Descriptor;
};

HeldFolder::HeldFolder(std::string path) : path_(std::move(path)) {
    const int fd = ::open(path_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    velmora::check(fd, "open", path_);
    handle_ = std::make_unique<Handle>(fd);
    struct stat facts{};
    velmora::check(::fstat(fd, &facts), "stat", path_);
    device_ = facts.st_dev;
    inode_ = facts.st_ino;
}

HeldFolder::~HeldFolder() = default;
HeldFolder::HeldFolder(HeldFolder&&) noexcept = default;

int HeldFolder::descriptor() const noexcept { return handle_->get(); }

void HeldFolder::check() const {
    const FileFacts now = IO::lstat(path_);
    if (now.device != device_ || now.inode != inode_)
        throw IOError("stat", path_, ESTALE);
}

} // namespace velmora
