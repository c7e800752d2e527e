#include "cli/Commands.h"

namespace velmora {

std::vector<std::unique_ptr<Command>> allCommands() {
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(makeCopyCommand());
    commands.push_back(makeSettingsCommand());
    return commands;
}

} // namespace velmora
