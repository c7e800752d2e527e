#pragma once

#include "base/Errors.h"
#include "platform/ChildProcess.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// ffmpeg has delivered no new frame for too long: "ffmpeg stalled ({n} s without a new frame)".
class FFmpegStall : public std::runtime_error {
public:
    explicit FFmpegStall(double seconds);
};

// One run of ffmpeg that makes a file, watched until its end.
struct FFmpegRun {
    std::string ffmpeg;
    std::vector<std::string> arguments;               // with "-progress pipe:1" among them
    std::string folder;                               // the working folder
    std::optional<ChildProcess::Options> feeder = {}; // its standard output becomes ffmpeg's standard input
    std::function<ToolError(const ToolError&)> explainFeederError = {};
    std::string output = {}; // the file that ffmpeg writes
    double duration = 0;     // seconds of the clip; 0 when not known

    std::function<void(double seconds)> progress = {};         // of the clip that are done; on a reader's thread
    std::function<void(std::string_view)> onErrorLine = {};    // on a reader's thread
    std::function<void(std::string_view)> onProgressLine = {}; // on a reader's thread
    std::function<std::int64_t()> activity = {}; // a number that grows while the input is read; may be empty
    IsCancelled isCancelled = {};
    double stallTimeout = 60;
    double stopPatience = 10; // seconds from the polite request to the kill
    Log log = {};

    // Blocks until the end. Throws FFmpegStall, and ToolError: "cancelled" when told to stop, the feeder's error where
    // the feeder failed first. No child process is left. The output file stays as it is.
    void run() const;
};

} // namespace velmora
