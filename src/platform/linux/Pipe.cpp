#include "platform/Pipe.h"

#include "base/Errors.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace velmora {

Pipe::Pipe() {
    if (::pipe2(ends_, O_CLOEXEC) != 0)
        throw IOError("pipe", "", errno);
}

Pipe::~Pipe() {
    ::close(ends_[0]);
    ::close(ends_[1]);
}

} // namespace velmora
