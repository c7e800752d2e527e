#include "cli/Commands.h"
#include "cli/JobRunner.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>

namespace velmora {

namespace {

// The reports outlive the folder in which the command was typed.
std::string absolute(const std::string& typed) {
    if (typed.empty())
        return typed;
    std::filesystem::path path = std::filesystem::absolute(typed);
    std::error_code failed; // ".." behind a link leads elsewhere than its text says
    if (std::ranges::find(path, "..") != path.end())
        if (const auto real = std::filesystem::weakly_canonical(path, failed); !failed)
            path = real;
    auto text = path.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

class CopyCommand : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("copy", "Copy a card to one or more disks and verify the copies");
        app->add_option("SOURCE", source_, "The card, or any folder of footage")->required();
        app->add_option("--dest", roots_,
                        "A disk, or a folder on it; once for each copy. The card goes to "
                        "ROOT/<date>/<card name>/")
            ->required()
            ->type_name("ROOT");
        app->add_option("--name", cardName_, "Name of the card folder (default: the card's own name)");
        app->add_option("--date", date_, "Date folder, YYYY-MM-DD (default: today)");
        app->add_option("--project", project_, "Name of the project, for the reports");
        app->add_flag("--no-verify", noVerify_, "Do not read the copies back. The card is then never safe to format");
        app->add_option("--block-mib", blockMiB_, "Size of one block in MiB, 1 to 1024")
            ->capture_default_str()
            ->type_name("N");
        app->add_option("--buffers", buffers_, "Blocks in flight, at least 2")->capture_default_str()->type_name("N");
        app->add_flag("--allow-same-device", sameDevice_, "Allow two destinations on one drive");
        app->add_flag("--allow-source-volume", sourceVolume_, "Allow a destination on the card's own drive");
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
        JobConfig config(absolute(source_), {});
        for (const auto& root : roots_)
            config.destRoots.push_back(absolute(root));
        config.cardName = cardName_;
        config.date = date_;
        config.project = project_;
        config.verify = !noVerify_;
        config.chunkMB = blockMiB_;
        config.buffers = buffers_;
        config.allowSameDevice = sameDevice_;
        OffloadOptions options;
        options.allowSourceVolume = sourceVolume_;
        OffloadJob job(std::move(config), std::move(options));
        return runJob(job, context, json_);
    }

private:
    std::string source_;
    std::vector<std::string> roots_;
    std::optional<std::string> cardName_;
    std::optional<std::string> date_;
    std::optional<std::string> project_;
    bool noVerify_ = false;
    std::int64_t blockMiB_ = JobConfig().chunkMB;
    std::int64_t buffers_ = JobConfig().buffers;
    bool sameDevice_ = false;
    bool sourceVolume_ = false;
    bool json_ = false;
};

} // namespace

std::unique_ptr<Command> makeCopyCommand() { return std::make_unique<CopyCommand>(); }

} // namespace velmora
