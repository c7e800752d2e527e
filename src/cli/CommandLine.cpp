#include "cli/CommandLine.h"

#include "base/Errors.h"
#include "base/Text.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/Interrupts.h"
#include "cli/ShellText.h"
#include "cli/StatusJson.h"
#include "platform/StandardStreams.h"
#include "settings/AppSupport.h"

#include <CLI/CLI.hpp>
#include <cstring>
#include <fmt/format.h>
#include <new>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <span>

namespace velmora {

namespace {

struct Declared {
    CLI::App* app;
    Command* command;
};

// An end that no command has told of: as a result for programs where the command line asks for JSON, and one line for
// the eye. A list of conflicts has several, and stays in lines.
ExitStatus tellEnd(ExitStatus status, const std::string& text, CommandContext& context,
                   std::optional<PreflightCode> code = {}) {
    if (context.json) {
        JobStatus end;
        end.phase = status == ExitStatus::cancelled ? JobStatus::Phase::cancelled : JobStatus::Phase::failed;
        end.error = text;
        end.errorCode = code;
        // A run that stopped before its work had begun may simply be started again.
        const bool again = status == ExitStatus::cancelled || status == ExitStatus::brokeOff;
        const LastWords words{"", "", !context.next.empty() ? context.next : again ? context.typed : ""};
        context.console.event(StatusJson::result(end, nullptr, words, static_cast<int>(status)));
    }
    const std::string line = code                              ? refusalText(*code, text)
                             : status == ExitStatus::cancelled ? text
                                                               : "velmora: " + text;
    for (const std::string_view each : split(line, '\n', true))
        context.console.log(each);
    return status;
}

ExitStatus runGuarded(Command& command, CommandContext& context) {
    try {
        return command.run(context);
    } catch (const UsageError& error) {
        tellEnd(ExitStatus::usage, error.what(), context);
        context.console.log("Run with --help for more information.");
        return ExitStatus::usage;
    } catch (const OffloadError& error) {
        return tellEnd(error.code() ? ExitStatus::refused : ExitStatus::brokeOff, error.what(), context, error.code());
    } catch (const Cancelled&) {
        return tellEnd(ExitStatus::cancelled, "Cancelled.", context);
    } catch (const std::bad_alloc&) {
        return tellEnd(ExitStatus::brokeOff, "out of memory", context);
    } catch (const std::exception& error) {
        return tellEnd(ExitStatus::brokeOff, error.what(), context);
    }
}

// Help and version are answers; anything else that the parser throws is wrong usage.
ExitStatus answerParse(const CLI::App& program, const CLI::ParseError& error, CommandContext& context) {
    std::ostringstream out;
    std::ostringstream err;
    if (program.exit(error, out, err) == 0) {
        std::string text = out.str();
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        context.console.print(text);
        return ExitStatus::ok;
    }
    tellEnd(ExitStatus::usage, error.what(), context);
    const auto chosen = program.get_subcommands();
    context.console.log(chosen.empty()
                            ? "Run velmora --help for the commands."
                            : fmt::format("Run velmora {} --help for its options.", chosen.front()->get_name()));
    return ExitStatus::usage;
}

// Asked of the words themselves: wrong usage is told before any option has its value.
bool asksForJson(std::span<const char* const> words) {
    for (const std::string_view word : words) {
        if (word == "--")
            return false;
        if (word == "--json")
            return true;
    }
    return false;
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
        return answerParse(program, error, context);
    }
    AppSupport::migrate([&](std::string_view line) { context.console.log(line); });
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
    const std::span words(argv, static_cast<std::size_t>(argc));
    CommandContext context{console, interrupts, asksForJson(words), ShellText::commandLine(words)};
    return static_cast<int>(whenPrinted(parseAndRun(argc, argv, context), console));
}

} // namespace velmora
