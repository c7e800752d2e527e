#include "base/Mutex.h"
#include "base/Text.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/Interrupts.h"
#include "cli/Table.h"
#include "cli/TerminalText.h"
#include "cli/TypedPath.h"
#include "cli/UserSettings.h"
#include "disks/Volumes.h"
#include "job/CardEject.h"
#include "platform/VolumeWatcher.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace velmora {

namespace {

class VolumesCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("volumes", "List cards and disks");
        app->add_option("--dest", roots_, "Also list the volume of this folder")->type_name("ROOT");
        app->add_flag("--watch", watch_, "Go on, and list again whenever a volume comes or goes; Ctrl-C ends it");
        app->add_flag("--json", json_, "Print JSON instead: one object a volume");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        const AppSettings settings = loadSettings(context.console);
        if (watch_)
            watch(settings, context);
        else
            list(settings, context.console);
        return ExitStatus::ok;
    }

private:
    void list(const AppSettings& settings, Console& console) const {
        std::vector<std::string> roots = TypedPath::absolute(roots_);
        roots.insert(roots.end(), settings.destRoots.begin(), settings.destRoots.end());
        const std::vector<VolumeItem> volumes = Volumes::scan(roots);
        if (json_)
            for (const VolumeItem& volume : volumes)
                console.event(toJson(volume));
        else
            print(volumes, console);
    }

    // The first list comes after the watching has begun, so that nothing is missed in between.
    void watch(const AppSettings& settings, CommandContext& context) const {
        Mutex mutex;
        Condition changed;
        bool listDue = true;
        bool ended = false;
        const auto set = [&](bool& what) {
            MutexLock lock(mutex);
            what = true;
            changed.notifyAll();
        };
        const Interrupts::Route route(context.interrupts, {[&] { set(ended); }, {}, {}});
        const VolumeWatcher watcher([&] { set(listDue); });
        for (bool first = true;; first = false) {
            {
                MutexLock lock(mutex);
                while (!listDue && !ended)
                    changed.wait(mutex);
                if (ended)
                    return;
                listDue = false;
            }
            if (json_)
                context.console.event({{"event", "volumes"}});
            else if (!first)
                context.console.print("");
            list(settings, context.console);
        }
    }

    static nlohmann::json toJson(const VolumeItem& volume) {
        nlohmann::json json = {{"event", "volume"},
                               {"name", volume.name},
                               {"path", volume.path},
                               {"total", volume.total},
                               {"free", volume.free},
                               {"format", volume.format},
                               {"card", volume.looksLikeCard},
                               {"destination", volume.isDestination},
                               {"writable", volume.isWritable}};
        if (volume.identity)
            json["identity"] = *volume.identity;
        if (volume.ejectProblem)
            json["ejectProblem"] = *volume.ejectProblem;
        return json;
    }

    static void print(const std::vector<VolumeItem>& volumes, Console& console) {
        if (volumes.empty()) {
            console.print("No card and no disk is mounted below /media, /run/media, /mnt or /Volumes.");
            return;
        }
        std::vector<std::vector<std::string>> rows = {{"NAME", "KIND", "SIZE", "FREE", "FORMAT", "PATH", "NOTES"}};
        for (const VolumeItem& volume : volumes) {
            std::vector<std::string> notes;
            if (volume.isDestination)
                notes.push_back("destination");
            if (!volume.isWritable)
                notes.push_back("read-only");
            if (volume.ejectProblem)
                notes.push_back(*volume.ejectProblem);
            rows.push_back({volume.name, volume.looksLikeCard ? "card" : "disk", formatBytesShort(volume.total),
                            formatBytesShort(volume.free), volume.format, volume.path, join(notes, "; ")});
        }
        Table::print(std::move(rows), console);
    }

    std::vector<std::string> roots_;
    bool watch_ = false;
    bool json_ = false;
};

class EjectCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("eject", "Eject a card");
        app->add_option("PATH", path_, "The card, as it is mounted")->required();
        app->footer("Exit status: 0 the card may be pulled; 4 it was not ejected, and why.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        if (const auto problem = CardEject::eject(TypedPath::absolute(path_))) {
            context.console.log("Couldn't eject the card: " + TerminalText::printable(*problem));
            return ExitStatus::brokeOff;
        }
        context.console.print("The card is ejected.");
        return ExitStatus::ok;
    }

private:
    std::string path_;
};

} // namespace

std::unique_ptr<Command> makeVolumesCommand() { return std::make_unique<VolumesCommand>(); }
std::unique_ptr<Command> makeEjectCommand() { return std::make_unique<EjectCommand>(); }

} // namespace velmora
