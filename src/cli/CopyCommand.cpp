#include "base/Text.h"
#include "cli/ClipOptions.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/CopyStart.h"
#include "cli/HistorySession.h"
#include "cli/JobRunner.h"
#include "cli/TerminalText.h"
#include "cli/TypedPath.h"
#include "cli/UserSettings.h"
#include "disks/CardIdentity.h"
#include "job/CardEject.h"
#include "job/QueueRules.h"

#include <CLI/CLI.hpp>

namespace velmora {

namespace {

// Ejects the card when the rules allow it: the copy is safe, and the card in the reader is the one that was copied.
void ejectCard(const OffloadJob& job, Console& console, bool json) {
    const std::string& source = job.config().source;
    std::optional<std::string> problem;
    if (!job.status().safeToEject)
        problem = "the copy is not safe yet";
    else
        problem = CardEject::problem(source); // first, for a folder never is the card that was copied
    if (!problem)
        problem = QueueRules::ejectProblem(job.engine().cardAtStart(), CardIdentity::withVolume(source), false);
    if (!problem)
        problem = CardEject::eject(source);
    if (problem)
        console.log("Couldn't eject the card: " + TerminalText::printable(*problem));
    else if (json)
        console.log("The card is ejected."); // standard output holds JSON and nothing else
    else
        console.print("The card is ejected.");
}

class CopyCommand : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("copy", "Copy a card to one or more disks and verify the copies");
        app->add_option("SOURCE", source_, "The card, or any folder of footage")->required();
        app->add_option("--dest", roots_,
                        "A disk, or a folder on it; once for each copy. The card goes to "
                        "ROOT/<date>/<card name>/ (default: the setting destRoots)")
            ->type_name("ROOT");
        app->add_option("--name", cardName_,
                        "Name of the card folder (default: from the clips, the day, or the volume's label)");
        app->add_option("--date", date_, "Date folder, YYYY-MM-DD (default: today)");
        app->add_option("--project", project_, "Name of the project, for the reports");
        auto* verify = app->add_flag("--verify", verify_, "Read the copies back, whatever the setting verify says");
        app->add_flag("--no-verify", noVerify_, "Do not read the copies back. The card is then never safe to format")
            ->excludes(verify);
        app->add_option("--block-mib", blockMiB_, "Size of one block in MiB, 1 to 1024")
            ->capture_default_str()
            ->type_name("N");
        app->add_option("--buffers", buffers_, "Blocks in flight, at least 2")->capture_default_str()->type_name("N");
        app->add_flag("--allow-same-device", sameDevice_, "Allow two destinations on one drive");
        app->add_flag("--allow-source-volume", sourceVolume_, "Allow a destination on the card's own drive");
        app->add_flag("--again", again_, "Copy a card that is already backed up");
        app->add_flag("--no-history", noHistory_, "Neither look the card up in the card history nor record it there");
        app->add_flag("--eject", eject_, "Eject the card when it is safe to");
        clips_.declare(*app);
        app->add_flag("--json", json_, "Print JSON instead: one object a line");
        app->footer("Examples:\n"
                    "  velmora copy /media/dit/A001 --dest /mnt/raid --dest /mnt/shuttle\n"
                    "  velmora copy /media/dit/A001 --dest /mnt/raid --name A001_R2 --project \"Night Shift\"\n"
                    "\n"
                    "Ctrl-C cancels: what is complete stays, partly copied files are deleted. SIGUSR1 pauses after\n"
                    "the current file, SIGUSR2 resumes.\n"
                    "\n"
                    "Exit status: 0 all is well; 1 something is wrong with the data; 2 wrong usage; 3 refused before\n"
                    "anything was written; 4 the run broke off; 130 cancelled.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        HistorySession history(context.console);
        const AppSettings settings = loadSettings(context.console);
        JobConfig config(TypedPath::absolute(source_), destinations(settings, context.console));
        config.cardName = cardName_;
        config.date = date_;
        config.project = project_;
        config.verify = verify_ || (settings.verify && !noVerify_);
        if (!config.verify && !noVerify_)
            context.console.log("The copies are not read back: the setting verify is off.");
        config.chunkMB = blockMiB_;
        config.buffers = buffers_;
        config.allowSameDevice = sameDevice_;
        clips_.applyTo(config, settings, config.destRoots.size());
        OffloadOptions options;
        options.allowSourceVolume = sourceVolume_;
        config.recordHistory = !noHistory_;
        auto listing =
            CopyStart::prepare(config, options, {again_, settings.naming.suggestFromClips}, history, context);
        OffloadJob job(std::move(config), std::move(options), history.services());
        if (listing)
            job.useListing(std::move(listing->scan), std::move(listing->identity));
        const ExitStatus status = runJob(job, history, context, json_);
        if (eject_ && job.report())
            ejectCard(job, context.console, json_);
        return status;
    }

private:
    std::vector<std::string> destinations(const AppSettings& settings, Console& console) const {
        if (!roots_.empty())
            return TypedPath::absolute(roots_);
        if (settings.destRoots.empty())
            throw UsageError("--dest is required, or destinations in the settings: velmora settings destRoots ROOT…");
        console.log("Destinations, from the settings: " + TerminalText::printable(join(settings.destRoots, ", ")));
        return settings.destRoots;
    }

    std::string source_;
    std::vector<std::string> roots_;
    std::optional<std::string> cardName_;
    std::optional<std::string> date_;
    std::optional<std::string> project_;
    bool verify_ = false;
    bool noVerify_ = false;
    std::int64_t blockMiB_ = JobConfig().chunkMB;
    std::int64_t buffers_ = JobConfig().buffers;
    bool sameDevice_ = false;
    bool sourceVolume_ = false;
    bool again_ = false;
    bool noHistory_ = false;
    bool eject_ = false;
    bool json_ = false;
    ClipOptions clips_;
};

} // namespace

std::unique_ptr<Command> makeCopyCommand() { return std::make_unique<CopyCommand>(); }

} // namespace velmora
