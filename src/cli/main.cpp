#include "cli/CommandLine.h"

int main(int argc, char** argv) { return velmora::runCommandLine(argc, argv); }
