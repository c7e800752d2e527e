#include "base/Msg.h"

#include <fmt/format.h>

namespace velmora::Msg {

std::string appendBusy(std::string_view path) {
    return fmt::format("Another job is working with this backup right now — an append, a repair or a verify with "
                       "proxies ({}) — wait until it finishes.",
                       path);
}

std::string noReadAccess(std::string_view source) {
    return fmt::format("macOS does not let Velmora read {}. Allow it in System Settings › Privacy & Security › Files "
                       "and Folders › Velmora › Removable Volumes (every new build asks again), then add the card "
                       "again.",
                       source);
}

std::string reportNotWritten(std::string_view error) { return fmt::format("Could not write the report: {}", error); }

} // namespace velmora::Msg
