#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace velmora::faultdisk {

// What a caller can ask of the disk. "change" in a rule stands for every operation that alters the disk or flushes it.
enum class Op : unsigned {
    lookup,
    open,
    read,
    readdir,
    statfs,
    close, // look only
    create,
    write,
    truncate,
    mkdir,
    rmdir,
    unlink,
    rename,
    fsync,
    fsyncdir,
    syncfs, // change
    chmod,
    utimens,
    fallocate, // change too, but programs may shrug at a refusal
    count
};

using OpSet = std::uint32_t;
// "write,create", "change", "any"; throws std::invalid_argument on an unknown word.
OpSet parseOps(std::string_view words);
std::string_view opName(Op op);

// What the rules say about one operation.
struct Verdict {
    int error = 0;             // refuse with this errno
    bool crashed = false;      // …because the caller or the machine is dead, not because the disk failed
    std::int64_t keep = -1;    // write or read only so many bytes
    std::int64_t flipBit = -1; // turn this bit of the data over
};

// The faults to put in, in the order in which they were given. Any thread.
class RuleBook {
public:
    // "ACTION ARG OPS SKIP TIMES PATTERN": lets SKIP matching operations pass, then strikes TIMES times (0: for ever).
    // ACTION: fail (ARG errno), short (bytes kept), delay (ms), flip (bit, -1: one in the middle), full (bytes that
    // still fit), stall (until the rules are cleared), crash (SIGKILL to the caller, EIO for everybody from then on;
    // ARG 1: at the next change after the operation), readonly (ARG errno for every change from then on), vanish (ARG
    // errno for everything from then on). PATTERN: a glob over the path below the mount point, which may hold blanks.
    void add(const std::string& line);
    // Forgets all rules and lets stalled operations go on.
    void clear();
    // Counts the operation and says what happens to it; sleeps or stalls the caller where a rule says so.
    Verdict judge(Op op, const std::string& path, std::size_t bytes, pid_t caller);

    std::int64_t count(OpSet ops);
    std::int64_t hits();
    std::string lastHit(); // "rename /card/.a.offload-part"

private:
    struct Rule {
        std::string action;
        std::int64_t arg = 0;
        OpSet ops = 0;
        std::int64_t skip = 0, times = 0, seen = 0, hits = 0;
        std::string pattern;
    };
    void apply(Rule& rule, Op op, std::size_t bytes, pid_t caller, Verdict& verdict,
               std::unique_lock<std::mutex>& lock);

    std::mutex mutex_;
    std::condition_variable cleared_;
    std::list<Rule> rules_;
    std::array<std::int64_t, static_cast<std::size_t>(Op::count)> counts_{};
    std::int64_t hits_ = 0;
    std::uint64_t generation_ = 0;
    bool crashed_ = false;
    std::string lastHit_;
};

} // namespace velmora::faultdisk
