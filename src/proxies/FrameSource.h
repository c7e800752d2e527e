#pragma once

#include "base/Errors.h"
#include "platform/ChildProcess.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Where ffmpeg gets the pictures of a clip from.
struct FrameSource {
    std::vector<std::string> inputArgs;          // everything up to and with "-i" and the input
    std::optional<ChildProcess::Options> feeder; // pipes frames into ffmpeg's standard input; the renderer starts it
    bool audioFromInput = false;                 // the input holds the clip's sound too
    bool alreadyCropped = false;                 // the frame-lines crop has been done
    bool fullRange = false;                      // code values fill the whole range
    std::vector<std::string> cleanup;            // files and folders to remove when the render has ended
    // Explains the feeder's failure to a person; empty: the failure is shown as it is.
    std::function<ToolError(const ToolError&)> explainFeederError;
};

} // namespace velmora
