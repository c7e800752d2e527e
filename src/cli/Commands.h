#pragma once

#include "cli/Command.h"

namespace velmora {

// The makers of all commands, each defined in the file of its command.
std::unique_ptr<Command> makeCopyCommand();
std::unique_ptr<Command> makeAppendCommand();
std::unique_ptr<Command> makeRepairCommand();
std::unique_ptr<Command> makeVerifyCommand();
std::unique_ptr<Command> makeInspectCommand();
std::unique_ptr<Command> makeClipsCommand();
std::unique_ptr<Command> makeProxiesCommand();
std::unique_ptr<Command> makeVolumesCommand();
std::unique_ptr<Command> makeEjectCommand();
std::unique_ptr<Command> makeHistoryCommand();
std::unique_ptr<Command> makeSettingsCommand();

// Every command, in the order of the help text.
std::vector<std::unique_ptr<Command>> allCommands();

} // namespace velmora
