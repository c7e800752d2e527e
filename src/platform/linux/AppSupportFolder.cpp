#include "platform/AppSupportFolder.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace velmora::AppSupportFolder {

namespace {

std::string variable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the product never changes its environment
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::string home() {
    if (const std::string value = variable("HOME"); !value.empty())
        return value;
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::geteuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
        return found->pw_dir;
    return "/";
}

} // namespace

std::string dataHome() {
    // The XDG rules: a relative value is to be taken as not set.
    if (const std::string value = variable("XDG_DATA_HOME"); value.starts_with('/'))
        return value;
    return home() + "/.local/share";
}

std::string path() {
    for (const char* name : {"VELMORA_SETTINGS_DIR", "TARNWICK_SETTINGS_DIR", "OFFLOAD_SETTINGS_DIR"})
        if (const std::string value = variable(name); !value.empty())
            return value;
    return dataHome() + "/Velmora";
}

std::vector<std::string> searchFolders() { return {path(), dataHome() + "/Tarnwick", dataHome() + "/Offload"}; }

} // namespace velmora::AppSupportFolder
