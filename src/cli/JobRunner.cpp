#include "cli/JobRunner.h"

#include "base/Mutex.h"
#include "base/Text.h"
#include "cli/Console.h"
#include "cli/CopySummary.h"
#include "cli/HistorySession.h"
#include "cli/Interrupts.h"
#include "cli/LiveLine.h"
#include "cli/StatusJson.h"
#include "job/JobProgress.h"
#include "job/JobWords.h"
#include "records/OffloadPlan.h"

#include <chrono>
#include <exception>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <pthread.h>
#include <thread>
#include <utility>

namespace velmora {

namespace {

// Four times a second: as often as the stream of JSON promises at most, and as a person can read.
constexpr auto tick = std::chrono::milliseconds(250);
constexpr std::string_view recordAwaited =
    "The run has ended — only its record in the card history is still waited for.";

constexpr std::string_view releasedCard =
    "Safe to eject: the card may go. Do not format it yet, its copies are still being verified.";
constexpr std::string_view copiedCard = "Safe to eject: the card may go. Do not format it: its copies are not "
                                        "verified. Only the clips are still worked on.";
constexpr std::string_view provedCard =
    "Safe to eject and to format: the copies are verified. Only the clips are still worked on.";

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The job on its own thread. Joined on every way out; what it threw is thrown again by `wait`.
class JobThread {
public:
    JobThread(OffloadJob& job, const Log& log) : thread_([this, &job, log] { work(job, log); }) {
        ::pthread_setname_np(thread_.native_handle(), "app.copy");
    }
    ~JobThread() {
        if (thread_.joinable())
            thread_.join();
    }
    JobThread(const JobThread&) = delete;
    JobThread& operator=(const JobThread&) = delete;

    // True when the job ended within the time.
    bool endsWithin(std::chrono::steady_clock::duration time) {
        const auto deadline = std::chrono::steady_clock::now() + time;
        MutexLock lock(mutex_);
        while (!ended_) {
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline)
                return false;
            changed_.waitFor(mutex_, deadline - now);
        }
        return true;
    }
    void wait() {
        thread_.join();
        if (error_)
            std::rethrow_exception(error_);
    }

private:
    void work(OffloadJob& job, const Log& log) noexcept {
        try {
            job.run(log);
        } catch (...) {
            error_ = std::current_exception();
        }
        MutexLock lock(mutex_);
        ended_ = true;
        changed_.notifyAll();
    }

    Mutex mutex_;
    Condition changed_;
    bool ended_ GUARDED_BY(mutex_) = false;
    std::exception_ptr error_; // written before the thread ends, read after it was joined
    std::thread thread_;
};

// Whatever shows a job while it runs.
class Viewer {
public:
    Viewer(OffloadJob& job, Console& console, bool json)
        : job_(job), console_(console), json_(json), progress_(monotonicSeconds()) {}

    void show() {
        const JobStatus status = job_.status();
        const double now = monotonicSeconds();
        progress_.updateVerifyRates(status, now);
        progress_.update(status, now);
        if (json_)
            console_.event(StatusJson::status(status, progress_));
        tellThatTheCardMayGo(status);
        if (console_.showsProgress())
            console_.progress(LiveLine::compose(status, progress_, roots(), console_.columns()));
    }

private:
    // Said while the job goes on, once, with a bell for whoever has turned away.
    void tellThatTheCardMayGo(const JobStatus& status) {
        if (!status.safeToEject || status.isFinished() || std::exchange(toldToGo_, true))
            return;
        console_.bell();
        console_.log(status.safeToFormat ? provedCard : status.verifyInProxy ? releasedCard : copiedCard);
    }

    const std::vector<std::string>& roots() {
        if (const auto plan = job_.plan(); plan && roots_.empty())
            roots_ = plan->destRoots;
        return roots_;
    }

    OffloadJob& job_;
    Console& console_;
    bool json_;
    JobProgress progress_;
    bool toldToGo_ = false;
    std::vector<std::string> roots_;
};

// A refusal that lists conflicts has several lines. Each is printed as a line of its own.
void logRefusal(Console& console, PreflightCode code, const std::string& text) {
    const std::string whole = refusalText(code, text);
    for (const std::string_view line : split(whole, '\n', true))
        console.log(line);
}

void follow(OffloadJob& job, Console& console, bool json) {
    JobThread thread(job, [&console](std::string_view line) { console.log(line); });
    Viewer viewer(job, console, json);
    do
        viewer.show();
    while (!thread.endsWithin(tick));
    thread.wait();
    console.clearProgress();
}

Errand errandOf(const OffloadJob& job, const CommandContext& context, const std::vector<std::string>& into) {
    Errand errand{context.typed, job.config().source, job.config().destRoots, into, !into.empty()};
    if (const auto plan = job.plan(); plan && !errand.into)
        errand.folders = plan->cardPaths();
    return errand;
}

ExitStatus tellEnd(const OffloadJob& job, const Errand& errand, Console& console, bool json) {
    const JobStatus status = job.status();
    const auto report = job.report();
    const ExitStatus exit = exitStatusOf(status, report != nullptr, job.config().verify);
    const LastWords words = LastWords::of(status, report.get(), errand);
    if (json) {
        auto result = StatusJson::result(status, report.get(), words, static_cast<int>(exit));
        if (report != nullptr)
            result["idleShare"] = job.engine().copyTimes().idleShare();
        console.event(result);
    }
    if (exit == ExitStatus::refused) {
        logRefusal(console, *status.errorCode, status.error.value_or(""));
        for (const auto& line : CopySummary::wayOn(words))
            console.log(line.text);
    } else if (exit == ExitStatus::brokeOff)
        console.log(fmt::format("velmora: {}", status.error.value_or("")));
    if (exit != ExitStatus::refused && !json)
        for (const auto& line : CopySummary::lines(status, report.get(), words))
            console.print(console.toned(line.text, line.tone));
    return exit;
}

} // namespace

ExitStatus exitStatusOf(const JobStatus& status, bool hasReport, bool verificationWanted) {
    using Phase = JobStatus::Phase;
    if (status.phase == Phase::cancelled)
        return ExitStatus::cancelled;
    if (status.errorCode)
        return ExitStatus::refused;
    if (status.phase != Phase::done)
        return hasReport ? ExitStatus::dataProblem : ExitStatus::brokeOff;
    const bool well = verificationWanted ? status.safeToFormat : status.safeToEject;
    const bool clipsAreWell = status.contentWarnings == 0 && status.proxiesFailed == 0;
    return well && clipsAreWell && status.copySucceeded.value_or(true) ? ExitStatus::ok : ExitStatus::dataProblem;
}

ExitStatus runJob(OffloadJob& job, HistorySession& history, CommandContext& context, bool json,
                  const std::vector<std::string>& into) {
    const auto cancel = [&, told = false]() mutable { // on the thread of the signals, one at a time
        const auto phase = job.status().phase;
        job.cancel();
        if (!std::exchange(told, true))
            context.console.log(JobStatus::isFinished(phase) ? recordAwaited : JobWords::cancellingText(phase));
    };
    const Interrupts::Route route(context.interrupts, {cancel, [&] { job.pause(); }, [&] { job.resume(); }});
    follow(job, context.console, json);
    const ExitStatus exit = tellEnd(job, errandOf(job, context, into), context.console, json);
    history.finish();
    return exit;
}

} // namespace velmora
