#pragma once

#include "support/FaultDisk.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velmora::test {

// The two loops that judge a durable operation. Both run it again and again on a fresh FaultDisk, with another of its
// operations struck each time, until a run goes through untouched. In `make test` a sample of the operations is struck;
// with VELMORA_SOAK=1 every one is. What is random comes from VELMORA_SEED (1 when not set; drawn anew in a soak), and
// every failure names it.
struct DurableOperation {
    std::string ops = "change";                           // which operations of the disk are struck
    std::function<void(const std::string& root)> prepare; // the state before; flushed by the loop
    std::function<void(const std::string& root)> work;    // throws when it could not do what it should
    FaultDisk::Power power = FaultDisk::Power::remembered;
};
// Looks at the state left behind, and is told whether the work succeeded.
using Check = std::function<void(const std::string& root, bool succeeded)>;

bool soaking();
std::uint64_t seed();

// Strikes one operation with `error` a round. An error must show exactly when one was put in. Returns the
// number of rounds.
int faultLoop(const DurableOperation& operation, int error, const Check& check);

// Kills the process at one operation a round, in every second round together with a power cut; and cuts the power after
// the work has succeeded, too. `work` runs in a child process and may exec. If there is a `recover`, it then runs in a
// child that is killed somewhere inside, once more in peace, and the power goes after that. `check` is told whether the
// last of them that ran had succeeded before the power went. Returns the number of rounds.
struct CrashOptions {
    std::function<void(const std::string& root)> recover;
    bool powerCuts = true;
    int sample = 24; // rounds in `make test`
};
int crashLoop(const DurableOperation& operation, const CrashOptions& options, const Check& check);

// Kills the process at the first change of the disk behind each operation that `at` describes, one a round, and takes
// back everything that was not flushed; the last round strikes nothing and loses the power at the end. For moments at
// which something has just been promised. Returns the number of rounds.
int worstMoments(const DurableOperation& operation, FaultDisk::At at, const Check& check);

} // namespace velmora::test
