#include "base/PauseGate.h"
#include "base/Text.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/HistorySession.h"
#include "cli/Interrupts.h"
#include "cli/TerminalText.h"
#include "cli/TypedPath.h"
#include "disks/SpacePlanner.h"
#include "platform/IO.h"
#include "verify/BackupVerifier.h"
#include "verify/VerifyJob.h"
#include "verify/VerifyReport.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <thread>

namespace velmora {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto tick = std::chrono::milliseconds(250);

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// One folder under verification.
struct Item {
    std::unique_ptr<VerifyJob> job;
    double seconds = 0; // written before its thread ends
};

Console::Tone toneOf(VerifyReport::Tone tone) {
    switch (tone) {
    case VerifyReport::Tone::ok:
        return Console::Tone::good;
    case VerifyReport::Tone::warning:
        return Console::Tone::warning;
    default:
        return Console::Tone::bad;
    }
}

ExitStatus statusOf(const VerifyResult& result) {
    switch (result.verdict()) {
    case VerifyResult::Verdict::clean:
        return ExitStatus::ok;
    case VerifyResult::Verdict::cancelled:
        return ExitStatus::cancelled;
    case VerifyResult::Verdict::folderGone:
        return ExitStatus::brokeOff;
    default:
        return ExitStatus::dataProblem;
    }
}

// Of a folder that was not looked at.
nlohmann::json resultJson(const std::string& cardPath, const VerifyJob::Status& status, ExitStatus exit) {
    nlohmann::json json = {{"event", "result"},
                           {"exitStatus", static_cast<int>(exit)},
                           {"cardPath", cardPath},
                           {"success", false},
                           {"cancelled", exit == ExitStatus::cancelled}};
    if (status.error)
        json["error"] = *status.error;
    if (status.errorCode)
        json["errorCode"] = name(*status.errorCode);
    return json;
}

std::string notKeptText(const std::string& why) {
    return "What was found could not be kept in the card history (" + why +
           "): later runs and inspect do not know of it.";
}

nlohmann::json resultJson(const VerifyResult& result, double seconds) {
    nlohmann::json unreadable = nlohmann::json::array();
    for (const auto& each : result.unreadable)
        unreadable.push_back({{"path", each.path}, {"error", each.error}});
    return {{"event", "result"},
            {"exitStatus", static_cast<int>(statusOf(result))},
            {"cardPath", result.cardPath},
            {"basis", result.basis},
            {"generations", result.generations},
            {"nestedHistories", result.nestedHistories},
            {"success", result.success()},
            {"unfinished", result.unfinished},
            {"copyBrokeOff", result.copyBrokeOff},
            {"onOtherDisk", result.onOtherDisk},
            {"cancelled", result.cancelled},
            {"folderGone", result.folderGone},
            {"totalFiles", result.totalFiles},
            {"totalBytes", result.totalBytes},
            {"ok", result.ok},
            {"checked", result.checked},
            {"bytesRead", result.bytesRead},
            {"seconds", seconds},
            {"changed", result.changed},
            {"missing", result.missing},
            {"extra", result.extra},
            {"failedAtCopy", result.failedAtCopy},
            {"failedSuperseded", result.failedSuperseded},
            {"unreadable", std::move(unreadable)},
            {"onlyInReport", result.onlyInReport},
            {"chainProblems", result.chainProblems}};
}

class VerifyCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("verify", "Check earlier backups against their records");
        app->add_option("PATH", paths_, "A card folder, or a day folder with card folders in it")->required();
        app->add_flag("--machine", machine_, "Print one line a problem and nothing else");
        app->add_flag("--json", json_, "Print JSON instead: one object a line");
        app->footer(
            "Example:\n"
            "  velmora verify /mnt/raid/2026-03-14\n"
            "\n"
            "Every file is read from the disk, past the system's cache, and held against the ASC MHL history or,\n"
            "where there is none, the checksum lists. Nothing is written to the disks; the card history remembers "
            "what\n"
            "was found. Several disks are read at once.\n"
            "\n"
            "Exit status: 0 everything matches; 1 a file or the history is not as recorded, or the backup is not\n"
            "finished; 2 wrong usage; 3 nothing to compare with; 4 the run broke off; 130 cancelled.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        const HistorySession history(context.console);
        collect(context.console, history);
        std::map<std::string, std::vector<Item*>> byDevice;
        for (Item& item : items_)
            byDevice[SpacePlanner::volumeKey(item.job->cardPath())].push_back(&item);
        std::atomic<bool> cancelled{false};
        {
            const Interrupts::Route route(context.interrupts, {[&] {
                                                                   cancelled = true;
                                                                   for (Item& item : items_)
                                                                       item.job->cancel();
                                                                   pauses_.wake();
                                                               },
                                                               [&] { pauses_.pause(); }, [&] { pauses_.resume(); }});
            work(byDevice, context.console);
        }
        context.console.clearProgress();
        ExitStatus worst = ExitStatus::ok;
        for (const Item& item : items_)
            worst = graver(worst, show(item, context.console));
        return cancelled ? ExitStatus::cancelled : worst;
    }

private:
    void collect(Console& console, const HistorySession& history) {
        for (const std::string& path : TypedPath::absolute(paths_)) {
            std::vector<std::string> folders;
            try {
                folders = BackupVerifier::cardFolders(path);
            } catch (const IOError&) { // the job tells, as it does where there is nothing to compare with
            }
            if (folders.empty())
                folders.push_back(path);
            for (const std::string& folder : folders)
                items_.push_back({std::make_unique<VerifyJob>(
                    folder, [&console](std::string_view line) { console.log(line); }, history.store(), &pauses_)});
        }
    }

    // One thread a device, so that disks do not wait for each other and no disk has to seek between two readers.
    void work(const std::map<std::string, std::vector<Item*>>& byDevice, Console& console) {
        std::atomic<std::size_t> left{byDevice.size()};
        std::vector<std::thread> threads;
        const auto start = Clock::now();
        for (const auto& [device, items] : byDevice)
            threads.emplace_back([&left, &items] {
                for (Item* item : items) {
                    const auto began = Clock::now();
                    item->job->run();
                    item->seconds = secondsSince(began);
                }
                --left;
            });
        while (left > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (Clock::now() - shown_ >= tick)
                showProgress(console, start);
        }
        for (std::thread& thread : threads)
            thread.join();
    }

    void showProgress(Console& console, Clock::time_point start) {
        shown_ = Clock::now();
        std::int64_t bytes = 0;
        std::int64_t total = 0;
        std::string current;
        std::size_t begun = 0; // how much the others hold is not known yet
        for (const Item& item : items_) {
            const VerifyJob::Status status = item.job->currentStatus();
            begun += status.state != VerifyJob::State::waiting ? 1 : 0;
            if (!status.progress)
                continue;
            bytes += status.progress->bytes;
            total += status.progress->totalBytes;
            if (status.state == VerifyJob::State::running)
                current = status.progress->file;
        }
        const double seconds = secondsSince(start) - pauses_.pausedTotal();
        if (json_)
            console.event({{"event", "status"},
                           {"phase", "verifying"},
                           {"bytes", bytes},
                           {"totalBytes", total},
                           {"foldersBegun", begun},
                           {"folders", items_.size()},
                           {"file", current},
                           {"paused", pauses_.isPaused()},
                           {"pauseHeld", pauses_.isHeld()},
                           {"pausedSeconds", pauses_.pausedTotal()}});
        if (console.showsProgress() && seconds > 0) {
            const double percent = total > 0 ? 100.0 * static_cast<double>(bytes) / static_cast<double>(total) : 0;
            const std::string line = fmt::format(
                "{} {:.0f} %{}  {} of {}  {:.0f} MB/s  {}",
                pauses_.isHeld()     ? "Paused"
                : pauses_.isPaused() ? "Pausing"
                                     : "Verifying",
                percent, begun < items_.size() ? fmt::format(" of {} of {} folders", begun, items_.size()) : "",
                formatBytesShort(bytes), formatBytesShort(total), static_cast<double>(bytes) / seconds / 1e6, current);
            console.progress(TerminalText::fitMiddle(line, console.columns()));
        }
    }

    ExitStatus show(const Item& item, Console& console) const {
        const VerifyJob::Status status = item.job->currentStatus();
        if (!status.result) {
            const bool cancelled = status.state == VerifyJob::State::cancelled;
            const ExitStatus exit = cancelled          ? ExitStatus::cancelled
                                    : status.errorCode ? ExitStatus::refused
                                                       : ExitStatus::brokeOff;
            if (json_)
                console.event(resultJson(item.job->cardPath(), status, exit));
            const std::string error = status.error.value_or("not verified");
            if (status.errorCode)
                console.log(refusalText(*status.errorCode, error));
            else if (!cancelled)
                console.log("velmora: " + item.job->cardPath() + ": " + error);
            return exit;
        }
        const VerifyResult& result = *status.result;
        const std::string notKept = status.notKept ? notKeptText(*status.notKept) : "";
        if (json_) {
            nlohmann::json json = resultJson(result, item.seconds);
            json["kept"] = notKept.empty();
            if (!notKept.empty())
                json["warning"] = notKept;
            console.event(json);
        } else if (machine_) {
            printLines(result, console);
        } else {
            describe(result, item.seconds, console);
            if (!notKept.empty())
                console.print("  " + console.toned(TerminalText::printable(notKept), Console::Tone::warning));
        }
        if (machine_ && !notKept.empty())
            console.log(result.cardPath + ": " + notKept);
        return statusOf(result);
    }

    // What no line can say, since it is about no file, goes to standard error.
    void printLines(const VerifyResult& result, Console& console) const {
        for (const std::string& line : VerifyReport::machineLines(result))
            console.print(TerminalText::printable(line));
        if (result.folderGone || result.unfinished || result.verdict() == VerifyResult::Verdict::nothingCompared)
            console.log(result.cardPath + ": " + VerifyReport::summary(result).text);
    }

    static void describe(const VerifyResult& result, double seconds, Console& console) {
        console.print(console.toned(TerminalText::printable(result.cardPath), Console::Tone::bold));
        const VerifyReport::Summary summary = VerifyReport::summary(result);
        const std::string text = VerifyReport::cliSummary(result, seconds);
        const bool ended = !result.folderGone && !result.cancelled;
        // Of an unfinished backup both say the same; the second says it all.
        if (!ended || !result.unfinished)
            console.print("  " + console.toned(summary.text, toneOf(summary.tone)));
        if (ended)
            console.print("  " + (result.unfinished ? console.toned(text, toneOf(summary.tone)) : text));
        for (const std::string& line : VerifyReport::fileLines(result))
            console.print("    " + TerminalText::printable(line));
        for (const std::string& line : VerifyReport::warnings(result))
            if (summary.text.find(std::string_view(line).substr(0, line.size() - 1)) == std::string::npos)
                console.print("  " + console.toned(TerminalText::printable(line), Console::Tone::warning));
    }

    static ExitStatus graver(ExitStatus a, ExitStatus b) {
        const auto rank = [](ExitStatus status) {
            switch (status) {
            case ExitStatus::ok:
                return 0;
            case ExitStatus::refused:
                return 1;
            case ExitStatus::brokeOff:
                return 2;
            default:
                return 3; // something is wrong with the data: what a script must not miss
            }
        };
        return rank(b) > rank(a) ? b : a;
    }

    std::vector<std::string> paths_;
    bool machine_ = false;
    bool json_ = false;
    PauseGate pauses_;
    std::vector<Item> items_;
    Clock::time_point shown_;
};

} // namespace

std::unique_ptr<Command> makeVerifyCommand() { return std::make_unique<VerifyCommand>(); }

} // namespace velmora
