#include "proxies/FFmpegRun.h"

#include "base/ProgressWatch.h"
#include "platform/IO.h"
#include "platform/Pipe.h"
#include "proxies/ToolProcess.h"

#include <csignal>
#include <fmt/format.h>
#include <memory>

namespace velmora {

FFmpegStall::FFmpegStall(double seconds)
    : std::runtime_error(fmt::format("ffmpeg stalled ({:.0f} s without a new frame)", seconds)) {}

namespace {

constexpr double glance = 0.05; // seconds between two looks at the children

std::string toolName(const std::string& program) { return program.substr(program.find_last_of('/') + 1); }

// Both children of one run, from the first to the last breath.
class Pair {
public:
    Pair(const FFmpegRun& run, ProgressWatch& watch) : run_(run) {
        auto options = ToolProcess::options(run.ffmpeg, run.arguments, run.folder);
        options.keepOutput = false;
        options.onErrorLine = run.onErrorLine;
        options.onOutputLine = [&run, &watch](std::string_view line) {
            watch.take(line);
            if (run.onProgressLine)
                run.onProgressLine(line);
            if (run.progress && line.starts_with("out_time_us="))
                run.progress(watch.outTime());
        };
        if (!run.feeder) {
            ffmpeg_ = std::make_unique<ChildProcess>(std::move(options));
            return;
        }
        const Pipe pipe;
        auto feeder = *run.feeder;
        feeder.outputTo = pipe.writeEnd();
        options.input = pipe.readEnd();
        feeder_ = std::make_unique<ChildProcess>(std::move(feeder));
        ffmpeg_ = std::make_unique<ChildProcess>(std::move(options));
    }

    // True when the run is over. What a feeder that broke off has delivered is no clip, though ffmpeg takes the end of
    // its input for the end of the clip.
    bool hasEnded() {
        if (feeder_ && !feederFailure_ && feeder_->waitFor(0) && feeder_->status() != 0 && ffmpegRuns()) {
            feederFailure_ = feeder_->status();
            feederEndedFirst_ = true;
        }
        if (!ffmpeg_->waitFor(glance))
            return false;
        if (feeder_ && !feederFailure_) {
            constexpr double lastWords = 2; // seconds
            if (feeder_->waitFor(lastWords) && feeder_->status() != 0)
                feederFailure_ = feeder_->status();
        }
        return true;
    }

    void judge() {
        if (feederFailure_ && !lostItsReader()) {
            const ToolError error(toolName(run_.feeder->program), *feederFailure_, feeder_->errorTail());
            throw run_.explainFeederError ? run_.explainFeederError(error) : error;
        }
        if (ffmpeg_->status() != 0)
            throw ToolError("ffmpeg", ffmpeg_->status(), ffmpeg_->errorTail());
    }

    void stop() {
        ffmpeg_->askToEnd();
        if (feeder_)
            feeder_->askToEnd();
        const auto bothEnded = [&](double seconds) {
            for (double waited = 0; waited < seconds; waited += glance)
                if (ffmpeg_->waitFor(glance) && (!feeder_ || feeder_->waitFor(0)))
                    return true;
            return false;
        };
        if (bothEnded(run_.stopPatience))
            return;
        ffmpeg_->kill();
        if (feeder_)
            feeder_->kill();
        constexpr double killPatience = 5;
        if (!bothEnded(killPatience) && !ffmpeg_->waitFor(0) && run_.log)
            run_.log(fmt::format("ffmpeg (pid {}) did not end {:.0f} s after kill", ffmpeg_->pid(), killPatience));
    }

private:
    bool ffmpegRuns() { return !ffmpeg_->waitFor(0); }
    // The feeder failed because ffmpeg was gone, whether that had failed or had enough. Not every program dies of it
    // silently.
    bool lostItsReader() const {
        return (ffmpeg_->status() != 0 || !feederEndedFirst_) &&
               (feeder_->status() == 128 + SIGPIPE || feeder_->errorTail().find("Broken pipe") != std::string::npos);
    }

    const FFmpegRun& run_;
    std::unique_ptr<ChildProcess> feeder_;
    std::unique_ptr<ChildProcess> ffmpeg_;
    std::optional<int> feederFailure_;
    bool feederEndedFirst_ = false;
};

} // namespace

void FFmpegRun::run() const {
    ProgressWatch watch;
    Pair pair(*this, watch);
    std::int64_t written = 0;
    Timestamp changed{};
    std::int64_t read = 0;
    while (!pair.hasEnded()) {
        if (isCancelled && isCancelled()) {
            pair.stop();
            throw ToolError("ffmpeg", -1, "cancelled");
        }
        if (watch.secondsIdle() < stallTimeout / 2)
            continue;
        // Some clips are read for minutes before they show a frame.
        if (const std::int64_t now = activity ? activity() : 0; now != read) {
            read = now;
            watch.touch();
        }
        // Moving the index of a long clip to the front writes for minutes and tells of no frame.
        try {
            const FileFacts facts = IO::stat(output);
            if (facts.size != written || !(facts.modified == changed)) {
                written = facts.size;
                changed = facts.modified;
                if (watch.outTime() > 0 && watch.outTime() + 1 >= duration)
                    watch.touch();
            }
        } catch (const IOError&) {
            // Not there yet, or the disk is gone: no sign of life.
        }
        if (watch.secondsIdle() >= stallTimeout) {
            pair.stop();
            throw FFmpegStall(stallTimeout);
        }
    }
    pair.judge();
}

} // namespace velmora
