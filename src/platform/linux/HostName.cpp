#include "platform/HostName.h"

#include <sys/utsname.h>

namespace velmora {

std::string hostName() {
    utsname info{};
    if (::uname(&info) != 0 || info.nodename[0] == '\0')
        return "localhost";
    return info.nodename;
}

} // namespace velmora
