#pragma once

#include "platform/File.h"
#include "platform/linux/Descriptor.h"

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace velmora {

// Opening files that a stranger's disk may have prepared, and what the kernel says of them.

// Every offset and length of uncached I/O is a multiple of this; a file that wants more is not opened O_DIRECT.
inline constexpr std::size_t directAlignment = 4096;

FileFacts factsOf(const struct stat& info) noexcept;

// Opens a regular file and nothing else: a FIFO is not waited for, a link in the last component is not followed, and
// anything but a regular file is refused with EINVAL. `flags` are those of open(2).
Descriptor openRegular(const std::string& path, int flags, mode_t mode = 0);

// The same for `root`/`relative`, reading only; no link is followed anywhere below `root`.
Descriptor openRegularBeneath(const std::string& root, const std::string& relative);
// The same below an open folder, whose path is for messages only.
Descriptor openRegularBeneath(int rootFd, const std::string& root, const std::string& relative);

// The walk for kernels without openat2(2): one openat(2) for each component. Used by openRegularBeneath, which see.
Descriptor openBeneathByComponents(int rootFd, std::string_view relative, const std::string& shownPath);

// Switches an open file to O_DIRECT when the file system takes it with our alignment; false when it does not.
bool switchToDirect(int fd) noexcept;
void switchToBuffered(int fd) noexcept;

} // namespace velmora
