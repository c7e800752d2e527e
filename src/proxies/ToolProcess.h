#pragma once

#include "platform/ChildProcess.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Runs the outside programs for pictures: with plain arguments, and in an environment in which a program can read their
// messages. Callers that need more pass `options` to ChildProcess themselves.
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
