#include "proxies/ToolProcess.h"

namespace velmora::ToolProcess {

ChildProcess::Options options(const std::string& path, std::vector<std::string> arguments, const std::string& folder) {
    ChildProcess::Options all;
    all.program = path;
    all.arguments = std::move(arguments);
    all.workingFolder = folder;
    // Messages in English and UTF-8, without colours, and no report file that the user's shell asks of every ffmpeg.
    // What ffmpeg reads over HTTP comes from this machine; through the user's proxy it would never arrive.
    all.environment = {"LC_ALL=C.UTF-8",     "LANGUAGE", "AV_LOG_FORCE_NOCOLOR=1",
                       "AV_LOG_FORCE_COLOR", "FFREPORT", "http_proxy"};
    return all;
}

std::string run(const std::string& path, std::vector<std::string> arguments, const std::string& folder,
                std::optional<double> timeout, const IsCancelled& isCancelled) {
    return ChildProcess::run(options(path, std::move(arguments), folder), timeout, isCancelled);
}

Combined runCombined(const std::string& path, std::vector<std::string> arguments, const std::string& folder,
                     const IsCancelled& isCancelled) {
    auto all = options(path, std::move(arguments), folder);
    all.errorToOutput = true;
    const std::string name = path.substr(path.find_last_of('/') + 1);
    ChildProcess child(std::move(all));
    const auto giveUp = [&](const char* why) {
        child.stop();
        throw ToolError(name, child.status(), why);
    };
    constexpr double glance = 0.02; // seconds: how soon a cancel is seen
    while (!child.waitFor(glance)) {
        if (isCancelled && isCancelled())
            giveUp("cancelled");
        if (child.outputTooLong())
            giveUp("more output than expected — stopped");
    }
    return {child.status(), child.output()};
}

} // namespace velmora::ToolProcess
