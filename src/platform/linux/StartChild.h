#pragma once

#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace velmora {

// What a child is started with.
struct ChildStart {
    std::vector<std::string> words;               // the program's full path and its arguments
    std::vector<std::string> environment;         // "NAME=value", all of it
    std::vector<std::pair<int, int>> descriptors; // (our descriptor, number in the child), numbers without a gap from 0
    std::string workingFolder;                    // empty: ours
};

// Starts a program in a process group of its own, with a fresh signal state and no other descriptors. It is killed when
// the thread that called this ends, however that comes about: a child of a program that was killed dies with it. So the
// calling thread must live as long as the child. 0 or an errno, also when the program cannot be executed.
//
// posix_spawn cannot ask for the death signal, and fork would copy page tables under direct reads that are on their way
// into our buffers. The child shares our memory until it executes, as with posix_spawn.
int startChild(const ChildStart& start, pid_t& pid);

} // namespace velmora
