#pragma once

#include "base/Errors.h"
#include "proxies/ToolProcess.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The file in which a maker's tool that cannot pipe leaves a clip for ffmpeg, in a fresh folder of its own. The folder
// goes with this object, unless it was handed over to the render.
class Intermediate {
public:
    explicit Intermediate(const std::string& tempDir); // throws IOError
    ~Intermediate();
    Intermediate(const Intermediate&) = delete;
    Intermediate& operator=(const Intermediate&) = delete;

    const std::string& folder() const noexcept { return folder_; }
    // The path for FrameSource::cleanup; from now on the folder is the render's to remove.
    std::string handOver();

    struct Job {
        std::string program;
        std::vector<std::string> arguments;
        std::int64_t expectedBytes = 0; // of all that is written; 0 when not known
        std::int64_t mostBytes = 0;     // a tool that writes more is stopped; 0: no limit
        IsCancelled isCancelled = {};
        std::function<void(double)> progress = {}; // 0 … 1
        double patience = 300;                     // seconds in which no byte is written
    };
    // Runs the tool in the folder until it ends by itself. ToolError when it cannot start, is cancelled, writes nothing
    // for too long or too much, or would not find room; no process is left then. The output is the last of both
    // streams, at most some 64 KiB.
    ToolProcess::Combined run(const Job& job) const;

    // The file written last; empty when there is none with anything in it.
    std::string newestFile() const;

    // The most bytes that ProRes 422 HQ needs for so many frames.
    static std::int64_t proresBytes(std::int64_t width, std::int64_t height, std::int64_t frames);
    // A tool's progress by the bytes written. `expected` is an estimate: reaching it counts as 0.8 of the work.
    static double progressOf(std::int64_t written, std::int64_t expected);

private:
    std::int64_t written() const;

    std::string folder_;
};

} // namespace velmora
