#pragma once

#include "PowerModel.h"
#include "Rules.h"

struct fuse_operations;

namespace velmora::faultdisk {

// The mounted disk: a folder "tree" that it shows, a folder "grave" beside it, the rules, and what is not flushed yet.
struct Disk {
    int tree;
    RuleBook rules;
    std::mutex mutex; // guards `power` and orders all changes
    PowerModel power;

    Disk(int treeFolder, int grave, bool recording) : tree(treeFolder), power(grave, recording) {}
    // syncfs does not pass through libfuse's table; the session loop calls it. Returns 0 or -errno.
    int syncFileSystem(pid_t caller);
};

// A table of operations for fuse_new(); its private data must be the Disk.
const fuse_operations& operations();

} // namespace velmora::faultdisk
