#include "base/Flag.h"
#include "base/PauseGate.h"
#include "cli/CardWords.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/HistorySession.h"
#include "cli/Interrupts.h"
#include "cli/TerminalText.h"
#include "cli/TypedPath.h"
#include "cli/UserSettings.h"
#include "memory/HistoryText.h"
#include "proxies/CameraHints.h"
#include "proxies/ClipProbe.h"
#include "proxies/ToolSearch.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace velmora {

namespace {

std::string_view kindName(HistoryMatchKind kind) {
    switch (kind) {
    case HistoryMatchKind::identical:
        return "identical";
    case HistoryMatchKind::newFiles:
        return "newFiles";
    case HistoryMatchKind::changed:
        return "changed";
    case HistoryMatchKind::notCompared:
        break;
    }
    return "notCompared";
}

nlohmann::json toJson(const CardInsight& insight) {
    nlohmann::json json = {{"event", "result"},
                           {"source", insight.source},
                           {"files", insight.fileCount},
                           {"bytes", insight.totalBytes},
                           {"clips", insight.clips.size()},
                           {"fingerprint", insight.fingerprint},
                           {"shape", insight.shape},
                           {"appendReachable", insight.appendReachable},
                           {"uncopied", insight.uncopied}};
    json["exitStatus"] = static_cast<int>(insight.error ? ExitStatus::brokeOff : ExitStatus::ok);
    if (insight.error)
        json["error"] = *insight.error;
    if (insight.filesystem)
        json["filesystem"] = *insight.filesystem;
    if (insight.nameSuggestion)
        json["name"] = insight.nameSuggestion->name;
    if (const std::string next = CardWords::command(insight); !next.empty())
        json["next"] = next;
    if (insight.match) {
        json["folders"] = nlohmann::json::array();
        for (const FolderNow& folder : insight.match->folders)
            json["folders"].push_back({{"cardPath", folder.cardPath},
                                       {"away", folder.state == FolderNow::State::away},
                                       {"problem", folder.problem()},
                                       {"unverified", folder.unverified.count}});
        json["state"] = HistoryText::line(*insight.match, false).text;
        json["match"] = {{"kind", kindName(insight.match->kind)}, {"newFiles", insight.match->newFiles.size()},
                         {"newBytes", insight.match->newBytes},   {"changed", insight.match->changed},
                         {"removed", insight.match->removed},     {"entry", insight.match->entry}};
    }
    return json;
}

class InspectCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("inspect", "Say what is on a card and whether it is backed up");
        app->add_option("SOURCE", source_, "The card, or any folder of footage")->required();
        app->add_flag("--json", json_, "Print JSON instead");
        app->footer(
            "Reads folders and records only: names, sizes and times are held against the card history and against\n"
            "the backup's folders on the disks that are connected. Of the footage it reads the head of one clip, "
            "which\n"
            "tells the camera.\n"
            "\n"
            "Exit status: 0 the card was read; 4 it could not be; 130 cancelled.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        Console& console = context.console;
        Flag cancelled;
        PauseGate pauses;
        const auto isCancelled = [&] { return cancelled.isSet(); };
        const Interrupts::Route route(context.interrupts, {[&] {
                                                               cancelled.set();
                                                               pauses.wake();
                                                           },
                                                           [&] {
                                                               pauses.pause();
                                                               console.log("Paused. SIGUSR2 goes on.");
                                                           },
                                                           [&] { pauses.resume(); }});
        HistorySession history(console);
        HistoryStore store = history.store();
        const CardInsight insight = CardInspector::inspect(
            TypedPath::absolute(source_), &store, nullptr,
            [&] { return isCancelled() || !pauses.waitWhilePaused(isCancelled); }, CardInspector::World::real());
        const CameraLabel label = insight.error ? CameraLabel() : labelOf(insight, console, isCancelled);
        if (json_) {
            nlohmann::json event = toJson(insight);
            if (label.camera)
                event["camera"] = *label.camera;
            if (label.curve)
                event["curve"] = *label.curve;
            console.event(event);
        } else {
            for (const std::string& line : CardWords::describe(insight))
                console.print(TerminalText::printable(line));
            if (const std::string camera = label.text(); !camera.empty())
                console.print(TerminalText::printable("Camera: " + camera));
            for (const std::string& line : CardWords::offers(insight))
                console.print(TerminalText::printable(line));
        }
        return insight.error ? ExitStatus::brokeOff : ExitStatus::ok;
    }

private:
    static CameraLabel labelOf(const CardInsight& insight, Console& console, const IsCancelled& isCancelled) {
        if (insight.clips.empty())
            return {};
        constexpr double patience = 10; // seconds; a card that answers slower than that is worth no waiting here
        const AppSettings settings = loadSettings(console);
        const ClipProbe probe(ToolSearch::resolved(settings.tools), RawBackends::all(), patience);
        const auto probeClip = [&](const Clip& clip) -> std::optional<ClipInfo> {
            try {
                return probe.probe(clip, insight.source, isCancelled);
            } catch (const ToolError&) {
                return std::nullopt;
            }
        };
        return CameraHints::probe(insight.clips, insight.source, settings.proxy, LutCatalog::load(), probeClip);
    }

    std::string source_;
    bool json_ = false;
};

} // namespace

std::unique_ptr<Command> makeInspectCommand() { return std::make_unique<InspectCommand>(); }

} // namespace velmora
