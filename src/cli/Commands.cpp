#include "cli/Commands.h"

namespace velmora {

std::vector<std::unique_ptr<Command>> allCommands() {
    std::vector<std::unique_ptr<Command>> commands;
    for (const auto make : {makeCopyCommand, makeAppendCommand, makeRepairCommand, makeVerifyCommand,
                            makeInspectCommand, makeClipsCommand, makeProxiesCommand, makeVolumesCommand,
                            makeEjectCommand, makeHistoryCommand, makeSettingsCommand})
        commands.push_back(make());
    return commands;
}

std::string refusalText(PreflightCode code, std::string_view message) {
    return std::string("refused: ").append(name(code)).append(": ").append(message);
}

} // namespace velmora
