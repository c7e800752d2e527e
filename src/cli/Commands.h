#pragma once

#include "cli/Command.h"

namespace velmora {

// The makers of all commands, each defined in the file of its command.
std::unique_ptr<Command> makeCopyCommand();
std::unique_ptr<Command> makeSettingsCommand();

// Every command, in the order of the help text.
std::vector<std::unique_ptr<Command>> allCommands();

} // namespace velmora
