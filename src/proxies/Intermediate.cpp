#include "proxies/Intermediate.h"

#include "base/Text.h"
#include "platform/IO.h"
#include "proxies/IntermediateRoom.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <utility>

namespace velmora {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// What is in the folder right now; a file that vanishes meanwhile is not.
template <class Take>
void eachFile(const std::string& folder, const Take& take) {
    for (const IOEntry& entry : IO::list(folder))
        try {
            const std::string path = folder + "/" + entry.name;
            if (const FileFacts facts = IO::lstat(path); facts.isFile)
                take(path, facts);
        } catch (const IOError&) {
            continue;
        }
}

// The last of what a tool says, however much that is.
class Tail {
public:
    void add(std::string_view line) {
        constexpr std::size_t most = 32768;
        text_ += line.substr(line.size() - std::min(line.size(), most));
        text_ += '\n';
        if (text_.size() > 2 * most)
            text_.erase(0, text_.size() - most);
    }
    std::string text() const { return withValidUtf8(text_); }

private:
    std::string text_;
};

} // namespace

Intermediate::Intermediate(const std::string& tempDir) {
    static std::atomic<unsigned> number{0};
    folder_ = fmt::format("{}/raw-{}", tempDir, ++number);
    IO::mkdirNew(folder_);
}

Intermediate::~Intermediate() {
    std::error_code ignored;
    if (!folder_.empty())
        std::filesystem::remove_all(folder_, ignored);
}

std::string Intermediate::handOver() { return std::exchange(folder_, {}); }

ToolProcess::Combined Intermediate::run(const Job& job) const {
    const std::string name = job.program.substr(job.program.find_last_of('/') + 1);
    if (!IntermediateRoom::claim(folder_, job.expectedBytes, job.isCancelled)) {
        if (job.isCancelled && job.isCancelled())
            throw ToolError(name, -1, "cancelled");
        throw ToolError(name, -1,
                        fmt::format("no room to decode the clip in {}: about {} are needed, {} are free", folder_,
                                    formatBytes(job.expectedBytes), formatBytes(IO::capacity(folder_).free)));
    }
    Tail tail; // the reader's thread's, until the child has ended
    auto options = ToolProcess::options(job.program, job.arguments, folder_);
    options.errorToOutput = true;
    options.keepOutput = false;
    options.onOutputLine = [&tail](std::string_view line) { tail.add(line); };
    ChildProcess child(std::move(options));
    const auto giveUp = [&](const std::string& why) {
        child.stop();
        throw ToolError(name, child.status(), why);
    };
    constexpr double glance = 0.05; // seconds: how soon a cancel is seen
    constexpr double look = 0.25;   // seconds between two looks at the folder
    std::int64_t bytes = 0;
    auto looked = Clock::now(), grown = looked;
    while (!child.waitFor(glance)) {
        if (job.isCancelled && job.isCancelled())
            giveUp("cancelled");
        if (secondsSince(looked) < look)
            continue;
        looked = Clock::now();
        if (const std::int64_t now = written(); now != bytes) {
            bytes = now;
            grown = looked;
            IntermediateRoom::stillNeeds(folder_, std::max<std::int64_t>(0, job.expectedBytes - bytes));
            if (job.progress)
                job.progress(progressOf(bytes, job.expectedBytes));
        }
        if (job.mostBytes > 0 && bytes > job.mostBytes)
            giveUp("more output than expected — stopped");
        if (secondsSince(grown) > job.patience)
            giveUp(fmt::format("no response within {:.0f} s — stopped", job.patience));
    }
    IntermediateRoom::stillNeeds(folder_, 0);
    return {child.status(), tail.text()};
}

std::string Intermediate::newestFile() const {
    std::string newest;
    Timestamp when;
    eachFile(folder_, [&](const std::string& path, const FileFacts& facts) {
        if (facts.size > 0 && (newest.empty() || std::pair(facts.modified, path) > std::pair(when, newest))) {
            newest = path;
            when = facts.modified;
        }
    });
    return newest;
}

std::int64_t Intermediate::written() const {
    std::int64_t sum = 0;
    eachFile(folder_, [&](const std::string&, const FileFacts& facts) { sum += facts.size; });
    return sum;
}

std::int64_t Intermediate::proresBytes(std::int64_t width, std::int64_t height, std::int64_t frames) {
    constexpr double bytesOfPixel = 3.6 / 8;
    constexpr double most = 1e15; // whatever a clip claims of itself
    const double pixels = static_cast<double>(width) * static_cast<double>(height);
    return static_cast<std::int64_t>(std::clamp(pixels * static_cast<double>(frames) * bytesOfPixel, 0.0, most));
}

double Intermediate::progressOf(std::int64_t written, std::int64_t expected) {
    constexpr double share = 0.8;
    if (expected <= 0)
        return 0;
    return std::clamp(share * static_cast<double>(written) / static_cast<double>(expected), 0.0, 1.0);
}

} // namespace velmora
