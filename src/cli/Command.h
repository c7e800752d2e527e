#pragma once

#include "base/Errors.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace velmora {

class Console;
class Interrupts;

// What the process answers when it ends. Scripts rely on the numbers.
enum class ExitStatus : int {
    ok = 0,          // all is well
    dataProblem = 1, // the run ended, and something is wrong with the data: failed file, mismatch, unfinished
    usage = 2,       // wrong usage
    refused = 3,     // refused before anything was written
    brokeOff = 4,    // the run broke off
    cancelled = 130, // Ctrl-C and its kin
};

// What the program hands to a command that runs.
struct CommandContext {
    Console& console;       // the two output streams, the progress line, the stream of JSON objects
    Interrupts& interrupts; // Ctrl-C and the signals that pause and resume
    bool json = false;      // `--json` stands on the command line
    std::string typed = {}; // the command line, as a shell takes it
    std::string next = {};  // the command that goes on should this one be refused; empty for none
};

// One sub-command of `velmora`, in a file of its own.
//
// To add one: write `src/cli/<Name>Command.cpp` with a class derived from Command and a function
// `std::unique_ptr<Command> make<Name>Command()`, then add that function to Commands.h and to the list in Commands.cpp.
// Nothing else has to be touched; describe it in docs/command-line.md.
//
// `declare` adds the sub-command and binds its options to members. `--help` is there already; a command that offers
// `--json` binds it itself. Usage that the option parser cannot judge is refused from `run` by
// throwing UsageError.
//
// `run` does the work on the main thread and answers with the exit status. What it throws is turned into one:
// OffloadError with a code prints "refused: <code>: <message>" and ends with `refused`; Cancelled ends with
// `cancelled`; every other exception prints its text and ends with `brokeOff`. With `--json` each of these ends has its
// "result" as well; a command that answers by itself prints its own.
class Command {
public:
    virtual ~Command() = default;
    virtual CLI::App* declare(CLI::App& program) = 0; // called once, before the arguments are parsed
    virtual ExitStatus run(CommandContext& context) = 0;
};

// "refused: <code>: <message>", as scripts look for it.
std::string refusalText(PreflightCode code, std::string_view message);

// Wrong usage that only the command itself can see. `what()` is a sentence for the user.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace velmora
