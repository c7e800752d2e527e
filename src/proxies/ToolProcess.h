#pragma once

#include "platform/ChildProcess.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// How the outside programs for pictures are run: with plain arguments, in an environment in which their messages can be
// read by a program. Who needs more than these takes `options` to ChildProcess itself.
namespace ToolProcess {

// `folder`: the working folder; empty for ours.
ChildProcess::Options options(const std::string& path, std::vector<std::string> arguments,
                              const std::string& folder = {});

// ChildProcess::run with these.
std::string run(const std::string& path, std::vector<std::string> arguments, const std::string& folder = {},
                std::optional<double> timeout = {}, const IsCancelled& isCancelled = {});

struct Combined {
    int status = 0;
    std::string output; // standard output and standard error as they came
};
// Without a time limit, for tools that tell about failures in their output alone. ToolError when it cannot start or is
// cancelled.
Combined runCombined(const std::string& path, std::vector<std::string> arguments, const std::string& folder,
                     const IsCancelled& isCancelled);

} // namespace ToolProcess

} // namespace velmora
