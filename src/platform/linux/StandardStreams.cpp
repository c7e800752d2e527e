#include "platform/StandardStreams.h"

#include "base/Errors.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace velmora {

void StandardStreams::fill() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) >= 0 || errno != EBADF)
            continue;
        // The lowest number that is free is the one that was closed.
        if (::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0)
            throw IOError("open", "/dev/null", errno);
    }
}

} // namespace velmora
