#pragma once

namespace velmora {

// The whole program behind main(): parses the arguments, runs the command and turns what happened into the exit status.
int runCommandLine(int argc, const char* const* argv);

} // namespace velmora
