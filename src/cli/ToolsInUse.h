#pragma once

#include "records/ExternalTools.h"

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// Which outside programs are used, whatever the settings name.
class ToolsInUse {
public:
    explicit ToolsInUse(const ExternalTools& configured);

    // Of a key such as "tools.ffmpeg"; none: the program is not found, or this is the key of no program.
    std::optional<std::string> path(std::string_view key) const;
    // "ffmpeg 5.1.9 (/usr/bin/ffmpeg)" where the program tells its version, else its path. It is started for that.
    std::optional<std::string> describe(std::string_view key) const;
    // What stands behind the value of the key in a list: "(used: …)", "(not found)"; empty for any other key.
    std::string remark(std::string_view key) const;

private:
    ExternalTools configured_, used_;
};

} // namespace velmora
