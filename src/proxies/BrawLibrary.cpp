#include "proxies/BrawLibrary.h"

#include "base/Errors.h"
#include "platform/IO.h"

#include <filesystem>

namespace velmora::BrawLibrary {

std::vector<std::string> places(const std::string& decoder) {
    const std::filesystem::path beside = std::filesystem::path(decoder).parent_path();
    return {beside, beside.parent_path() / "lib", "/usr/lib/blackmagic/BlackmagicRAWSDK/Linux/Libraries",
            "/usr/lib/blackmagic/BlackmagicRAWPlayer/BlackmagicRawAPI", "/opt/resolve/libs"};
}

std::optional<std::string> find(const std::string& decoder) {
    for (const std::string& folder : places(decoder))
        try {
            if (IO::exists(folder + "/" + fileName))
                return folder;
        } catch (const IOError&) {
            continue; // a folder that we may not look into does not help the decoder either
        }
    return std::nullopt;
}

} // namespace velmora::BrawLibrary
