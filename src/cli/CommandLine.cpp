#include "cli/CommandLine.h"

#include "base/Errors.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/Interrupts.h"
#include "cli/StandardStreams.h"
#include "settings/AppSupport.h"

#include <CLI/CLI.hpp>
#include <cstring>
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
ExitStatus answerParse(const CLI::App& program, const CLI::ParseError& error, Console& console) {
    std::ostringstream out;
    std::ostringstream err;
    if (program.exit(error, out, err) == 0) {
        std::string text = out.str();
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        console.print(text);
        return ExitStatus::ok;
    }
    console.log(fmt::format("velmora: {}", error.what()));
    const auto chosen = program.get_subcommands();
    console.log(chosen.empty() ? "Run velmora --help for the commands."
                               : fmt::format("Run velmora {} --help for its options.", chosen.front()->get_name()));
    return ExitStatus::usage;
}

// An answer that did not get out is no success, however well the command ended.
ExitStatus whenPrinted(ExitStatus status, Console& console) {
    const int error = console.outputError();
    if (error == 0)
        return status;
    console.log(
        fmt::format("velmora: standard output could not be written ({}), so what stands there is not whole; the "
                    "command itself ended with status {}",
                    std::strerror(error), static_cast<int>(status)));
    return status == ExitStatus::ok ? ExitStatus::brokeOff : status;
}

ExitStatus parseAndRun(int argc, const char* const* argv, CommandContext& context) {
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
        return answerParse(program, error, context.console);
    }
    AppSupport::migrateFromOffload([&](std::string_view line) { context.console.log(line); });
    for (const auto& [app, command] : declared) {
        if (app->parsed())
            return runGuarded(*command, context);
    }
    return ExitStatus::usage;
}

} // namespace

int runCommandLine(int argc, const char* const* argv) {
    StandardStreams::fill();
    Interrupts interrupts; // before any other thread
    Console console(STDOUT_FILENO, STDERR_FILENO);
    CommandContext context{console, interrupts};
    return static_cast<int>(whenPrinted(parseAndRun(argc, argv, context), console));
}

} // namespace velmora
