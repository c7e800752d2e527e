#include "Rules.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fnmatch.h>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace velmora::faultdisk {

namespace {

constexpr std::array<std::string_view, static_cast<std::size_t>(Op::count)> names{
    "lookup", "open",   "read",   "readdir", "statfs",   "close",  "create", "write",   "truncate", "mkdir",
    "rmdir",  "unlink", "rename", "fsync",   "fsyncdir", "syncfs", "chmod",  "utimens", "fallocate"};

constexpr OpSet bit(Op op) { return OpSet{1} << static_cast<unsigned>(op); }

constexpr OpSet any = bit(Op::count) - 1;
constexpr OpSet change = (bit(Op::syncfs) << 1) - bit(Op::create);

} // namespace

std::string_view opName(Op op) { return names.at(static_cast<std::size_t>(op)); }

OpSet parseOps(std::string_view words) {
    OpSet set = 0;
    std::istringstream in{std::string(words)};
    for (std::string word; std::getline(in, word, ',');) {
        OpSet found = word == "any" ? any : word == "change" ? change : 0;
        for (std::size_t i = 0; i < names.size(); ++i)
            if (names[i] == word)
                found = OpSet{1} << i;
        if (found == 0)
            throw std::invalid_argument("no such operation: " + word);
        set |= found;
    }
    return set;
}

void RuleBook::add(const std::string& line) {
    std::istringstream in(line);
    Rule rule;
    std::string ops;
    if (!(in >> rule.action >> rule.arg >> ops >> rule.skip >> rule.times))
        throw std::invalid_argument("bad rule: " + line);
    std::getline(in >> std::ws, rule.pattern);
    rule.ops = parseOps(ops);
    const std::unique_lock lock(mutex_);
    rules_.push_back(std::move(rule));
}

void RuleBook::clear() {
    const std::unique_lock lock(mutex_);
    rules_.clear();
    crashed_ = false;
    ++generation_;
    cleared_.notify_all();
}

Verdict RuleBook::judge(Op op, const std::string& path, std::size_t bytes, pid_t caller) {
    std::unique_lock lock(mutex_);
    ++counts_.at(static_cast<std::size_t>(op));
    Verdict verdict;
    // The list only grows behind our back while a rule makes us wait; clear() is told by the generation.
    const auto generation = generation_;
    for (auto rule = rules_.begin(); !crashed_ && rule != rules_.end(); ++rule) {
        if (!(rule->ops & bit(op)) || fnmatch(rule->pattern.c_str(), path.c_str(), 0) != 0)
            continue;
        if (rule->action != "full" && (++rule->seen <= rule->skip || (rule->times != 0 && rule->hits >= rule->times)))
            continue;
        ++rule->hits;
        apply(*rule, op, bytes, caller, verdict, lock);
        if (verdict.error != 0 || verdict.keep >= 0 || verdict.flipBit >= 0 || generation != generation_) {
            ++hits_;
            lastHit_ = std::string(opName(op)) + " " + path;
            verdict.crashed = crashed_;
            return verdict;
        }
    }
    if (crashed_) {
        verdict.error = EIO;
        verdict.crashed = true;
    }
    return verdict;
}

void RuleBook::apply(Rule& rule, Op op, std::size_t bytes, pid_t caller, Verdict& verdict,
                     std::unique_lock<std::mutex>& lock) {
    if (rule.action == "fail") {
        verdict.error = static_cast<int>(rule.arg);
    } else if (rule.action == "readonly" || rule.action == "vanish") {
        // From this operation on, whatever its path: the rule turns into a plain one that always strikes.
        const auto error = rule.arg;
        const auto ops =
            rule.action == "readonly" ? change | bit(Op::chmod) | bit(Op::utimens) | bit(Op::fallocate) : any;
        rule = {.action = "fail", .arg = error, .ops = ops, .pattern = "*"};
        verdict.error = static_cast<int>(error);
    } else if (rule.action == "short") {
        verdict.keep = std::min(rule.arg, static_cast<std::int64_t>(bytes));
    } else if (rule.action == "flip" && bytes > 0) {
        verdict.flipBit = rule.arg >= 0 ? rule.arg : static_cast<std::int64_t>(bytes) * 4;
    } else if (rule.action == "full" && op == Op::write) {
        if (rule.arg <= 0)
            verdict.error = ENOSPC;
        else if (rule.arg < static_cast<std::int64_t>(bytes))
            verdict.keep = rule.arg;
        rule.arg -= static_cast<std::int64_t>(bytes);
    } else if (rule.action == "delay") {
        const auto time = std::chrono::milliseconds(rule.arg);
        cleared_.wait_for(lock, time, [&, g = generation_] { return generation_ != g; });
    } else if (rule.action == "stall") {
        ++hits_;
        cleared_.wait(lock, [&, g = generation_] { return generation_ != g; });
    } else if (rule.action == "crash" && rule.arg == 1) {
        rule = {.action = "crash", .ops = change, .times = 1, .pattern = "*"};
    } else if (rule.action == "crash") {
        crashed_ = true;
        if (caller > 0)
            kill(caller, SIGKILL);
        verdict.error = EIO;
    }
}

std::int64_t RuleBook::count(OpSet ops) {
    const std::unique_lock lock(mutex_);
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i)
        sum += (ops >> i & 1) != 0 ? counts_.at(i) : 0;
    return sum;
}

std::int64_t RuleBook::hits() {
    const std::unique_lock lock(mutex_);
    return hits_;
}

std::string RuleBook::lastHit() {
    const std::unique_lock lock(mutex_);
    return lastHit_;
}

} // namespace velmora::faultdisk
