#include "cli/CardWords.h"
#include "cli/ClipOptions.h"
#include "cli/Commands.h"
#include "cli/HistorySession.h"
#include "cli/JobRunner.h"
#include "cli/TypedPath.h"
#include "cli/UserSettings.h"

#include <CLI/CLI.hpp>

#include <optional>

namespace velmora {

namespace {

// What append and repair have in common: a card, and the folders of its earlier backup.
class IntoCommand : public Command {
public:
    ExitStatus run(CommandContext& context) override {
        JobConfig config(TypedPath::absolute(source_), {});
        const std::vector<std::string> folders = TypedPath::absolute(into_);
        config.chunkMB = blockMiB_;
        config.buffers = buffers_;
        config.verify = !noVerify_;
        config.recordHistory = !noHistory_;
        configure(config, folders, context.console);
        HistorySession history(context.console);
        OffloadJob job(std::move(config), {}, history.services());
        prepare(job, folders);
        return runJob(job, history, context, json_, folders);
    }

protected:
    CLI::App* declareInto(CLI::App& program, const std::string& name, const std::string& what,
                          const std::string& footer) {
        CLI::App* app = program.add_subcommand(name, what);
        app->add_option("SOURCE", source_, "The card that the backup was made from")->required();
        app->add_option("--into", into_,
                        "Card folder of the earlier backup, ROOT/<date>/<card name>; once for each of its disks")
            ->required()
            ->type_name("CARD_FOLDER");
        app->add_option("--block-mib", blockMiB_, "Size of one block in MiB, 1 to 1024")
            ->capture_default_str()
            ->type_name("N");
        app->add_option("--buffers", buffers_, "Blocks in flight, at least 2")->capture_default_str()->type_name("N");
        app->add_flag("--no-history", noHistory_, "Do not record the run in the card history; it is read all the same");
        app->add_flag("--json", json_, "Print JSON instead: one object a line");
        app->footer(footer);
        return app;
    }
    virtual void configure(JobConfig& config, const std::vector<std::string>& folders, Console& console) = 0;
    virtual void prepare(OffloadJob& job, const std::vector<std::string>& folders) = 0;

    bool noVerify_ = false;

private:
    std::string source_;
    std::vector<std::string> into_;
    std::int64_t blockMiB_ = JobConfig().chunkMB;
    std::int64_t buffers_ = JobConfig().buffers;
    bool noHistory_ = false;
    bool json_ = false;
};

class AppendCommand final : public IntoCommand {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = declareInto(
            program, "append", "Add what is new on a card to its earlier backup, or finish an interrupted one",
            "Examples:\n"
            "  velmora append /media/dit/A001 --into /mnt/raid/2026-03-14/A001 --into /mnt/shuttle/2026-03-14/A001\n"
            "\n"
            "All disks of the backup must be there and in step; anything that does not fit is refused and nothing is\n"
            "changed. A run that was interrupted is finished first, from what it left on the disks.");
        app->add_flag("--no-verify", noVerify_, "Do not read the copies back. The card is then never safe to format");
        app->add_flag("--compare", compare_,
                      "Read every file of the card and of its copies, also of earlier runs, and compare them");
        clips_.declare(*app);
        return app;
    }

private:
    void configure(JobConfig& config, const std::vector<std::string>& folders, Console& console) override {
        config.appendInto = folders;
        clips_.applyTo(config, loadSettings(console), folders.size());
    }
    void prepare(OffloadJob& job, const std::vector<std::string>& folders) override {
        if (compare_)
            job.compareCard();
        job.setCompareCommand(CardWords::intoCommand("append", job.config().source, folders) + " --compare");
    }

    bool compare_ = false;
    ClipOptions clips_;
};

class RepairCommand final : public IntoCommand {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = declareInto(
            program, "repair", "Copy defective files of a backup again from the card",
            "Example:\n"
            "  velmora repair /media/dit/A001 --into /mnt/raid/2026-03-14/A001 --into /mnt/shuttle/2026-03-14/A001\n"
            "\n"
            "Every copy is read first, to learn which files are bad. Only the card that the backup was made from will\n"
            "do. Bad copies are not deleted: they go to _REPORT/set-aside in the card folder.");
        // Accepted so that the refusal says why; a repair without reading back proves nothing.
        app->add_flag("--no-verify", noVerify_, "Refused: a repair is always verified")->group("");
        return app;
    }

private:
    void configure(JobConfig&, const std::vector<std::string>&, Console&) override {}
    void prepare(OffloadJob& job, const std::vector<std::string>& folders) override { job.repairInto(folders); }
};

} // namespace

std::unique_ptr<Command> makeAppendCommand() { return std::make_unique<AppendCommand>(); }
std::unique_ptr<Command> makeRepairCommand() { return std::make_unique<RepairCommand>(); }

} // namespace velmora
