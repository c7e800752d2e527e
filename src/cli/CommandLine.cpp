#include "cli/CommandLine.h"

#include "base/Errors.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/Interrupts.h"
#include "settings/AppSupport.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <new>
#include <unistd.h>

namespace velmora {

namespace {

struct Declared {
    CLI::App* app;
    Command* command;
};

ExitStatus runGuarded(Command& command, CommandContext& context) {
    Console& console = context.console;
    try {
        return command.run(context);
    } catch (const UsageError& error) {
        console.log(fmt::format("velmora: {}", error.what()));
        console.log("Run with --help for more information.");
        return ExitStatus::usage;
    } catch (const OffloadError& error) {
        if (error.code()) {
            console.log(fmt::format("refused: {}: {}", name(*error.code()), error.what()));
            return ExitStatus::refused;
        }
        console.log(fmt::format("velmora: {}", error.what()));
    } catch (const Cancelled&) {
        console.log("Cancelled.");
        return ExitStatus::cancelled;
    } catch (const std::bad_alloc&) {
        console.log("velmora: out of memory");
    } catch (const std::exception& error) {
        console.log(fmt::format("velmora: {}", error.what()));
    }
    return ExitStatus::brokeOff;
}

// Help and version are answers; anything else that the parser throws is wrong usage.
int answerParse(const CLI::App& program, const CLI::ParseError& error, Console& console) {
    std::ostringstream out;
    std::ostringstream err;
    if (program.exit(error, out, err) == 0) {
        std::string text = out.str();
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        console.print(text);
        return static_cast<int>(ExitStatus::ok);
    }
    console.log(fmt::format("velmora: {}", error.what()));
    const auto chosen = program.get_subcommands();
    console.log(chosen.empty() ? "Run velmora --help for the commands."
                               : fmt::format("Run velmora {} --help for its options.", chosen.front()->get_name()));
    return static_cast<int>(ExitStatus::usage);
}

} // namespace

int runCommandLine(int argc, const char* const* argv) {
    Interrupts interrupts; // before any other thread
    Console console(STDOUT_FILENO, STDERR_FILENO);

    CLI::App program("Copies camera cards to several disks at once, proves the copies, and says when a card may be "
                     "ejected and formatted.",
                     "velmora");
    program.set_version_flag("--version", "velmora " VELMORA_VERSION);
    program.set_help_flag("-h,--help", "Show this help");
    program.require_subcommand(1);
    program.footer("velmora <command> --help tells more about one command.");
    program.get_formatter()->column_width(34);

    std::vector<Declared> declared;
    const auto commands = allCommands();
    for (const auto& command : commands)
        declared.push_back({command->declare(program), command.get()});

    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return answerParse(program, error, console);
    }
    AppSupport::migrateFromOffload([&](std::string_view line) { console.log(line); });
    CommandContext context{console, interrupts};
    for (const auto& [app, command] : declared) {
        if (app->parsed())
            return static_cast<int>(runGuarded(*command, context));
    }
    return static_cast<int>(ExitStatus::usage);
}

} // namespace velmora
