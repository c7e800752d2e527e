#include "support/Loops.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace velmora::test {

namespace {

// Runs the work in a child. Empty when it came to its end and succeeded, else what it said, or how it ended.
std::string runInChild(const std::function<void(const std::string&)>& work, const std::string& root) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2");
    const pid_t child = fork();
    if (child == 0) {
        try {
            work(root);
        } catch (const std::exception& error) {
            const std::string_view text = error.what();
            std::ignore = write(ends[1], text.data(), text.size());
            _exit(1);
        }
        _exit(0);
    }
    close(ends[1]);
    std::string said(1000, '\0');
    said.resize(static_cast<std::size_t>(std::max<ssize_t>(read(ends[0], said.data(), said.size()), 0)));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0 ? std::string() : fmt::format("{} (status {:#x})", said, status);
}

// How many operations an undisturbed run makes, and which of them to strike: all, or an evenly spread sample that
// always holds the first and the last ones.
std::vector<std::int64_t> strikes(const DurableOperation& operation, int sample) {
    FaultDisk disk(std::string(), FaultDisk::Power::ignored);
    operation.prepare(disk.root());
    const auto before = disk.count(operation.ops);
    EXPECT_EQ(runInChild(operation.work, disk.root()), "") << "the work fails on a sound disk";
    const auto count = disk.count(operation.ops) - before;
    std::vector<std::int64_t> positions;
    const auto step = soaking() ? 1.0 : std::max(1.0, static_cast<double>(count) / sample);
    for (double at = 0; at < static_cast<double>(count); at += step)
        positions.push_back(static_cast<std::int64_t>(at));
    if (count > 0 && positions.back() != count - 1)
        positions.push_back(count - 1);
    return positions;
}

} // namespace

bool soaking() {
    const char* value = std::getenv("VELMORA_SOAK");
    return value && *value == '1';
}

std::uint64_t seed() {
    static const std::uint64_t value = [] {
        if (const char* text = std::getenv("VELMORA_SEED"))
            return static_cast<std::uint64_t>(std::strtoull(text, nullptr, 10));
        return soaking() ? std::uint64_t{std::random_device()()} : std::uint64_t{1};
    }();
    return value;
}

int faultLoop(const DurableOperation& operation, int error, const Check& check) {
    int rounds = 0;
    auto positions = strikes(operation, 40);
    positions.push_back(positions.empty() ? 0 : positions.back() + 1); // the clean round
    for (const auto position : positions) {
        FaultDisk disk(std::string(), FaultDisk::Power::ignored);
        operation.prepare(disk.root());
        disk.fail(error, {.ops = operation.ops, .skip = position});
        std::string message;
        try {
            operation.work(disk.root());
        } catch (const std::exception& failure) {
            message = failure.what();
        }
        SCOPED_TRACE(fmt::format("operation {} of {} struck with errno {}: {}; the work says: {}", position,
                                 positions.back(), error, disk.lastHit(), message));
        EXPECT_EQ(!message.empty(), disk.hits() > 0);
        disk.clear();
        check(disk.root(), message.empty());
        ++rounds;
    }
    return rounds;
}

int crashLoop(const DurableOperation& operation, const CrashOptions& options, const Check& check) {
    int rounds = 0;
    auto positions = strikes(operation, options.sample);
    const auto beyond = positions.empty() ? 1 : positions.back() + 1;
    positions.insert(positions.end(), 3, beyond); // nothing strikes, then the power goes
    std::mt19937_64 random(seed());
    for (const auto position : positions) {
        const auto roundSeed = random() % 1'000'000;
        const bool powerCut = options.powerCuts && (position == beyond || rounds % 2 == 0 || soaking());
        auto disk = std::make_unique<FaultDisk>(std::string(), operation.power);
        operation.prepare(disk->root());
        disk->settle();
        disk->crash({.ops = operation.ops, .skip = position});
        bool succeeded = runInChild(operation.work, disk->root()).empty();
        std::string story = fmt::format("VELMORA_SEED={} round {}: killed at operation {} of {} ({})", seed(), rounds,
                                        position, beyond, disk->lastHit());
        std::unique_ptr<FaultDisk> first; // owns the folder of the second
        const auto restart = [&](bool cut, std::uint64_t cutSeed) {
            if (!cut)
                return disk->clear();
            story += "; " + disk->cutPower(cutSeed);
            auto next = std::make_unique<FaultDisk>(disk->backing(), operation.power);
            if (!first)
                first = std::move(disk);
            disk = std::move(next);
        };
        restart(powerCut, roundSeed);
        if (options.recover) {
            disk->crash({.ops = operation.ops, .skip = static_cast<std::int64_t>(roundSeed % 12)});
            if (!runInChild(options.recover, disk->root()).empty())
                story += "; killed again in the recovery (" + disk->lastHit() + ")";
            restart(powerCut, roundSeed + 1);
            const auto trouble = runInChild(options.recover, disk->root());
            EXPECT_EQ(trouble, "") << story << ": cannot recover";
            succeeded = trouble.empty();
            restart(true, roundSeed + 2); // what is recovered must stay
        }
        SCOPED_TRACE(story);
        check(disk->root(), succeeded);
        ++rounds;
    }
    return rounds;
}

int worstMoments(const DurableOperation& operation, FaultDisk::At at, const Check& check) {
    for (bool struck = true; struck; ++at.skip) {
        FaultDisk disk(std::string(), operation.power);
        operation.prepare(disk.root());
        disk.settle();
        disk.crash(at, true);
        const bool succeeded = runInChild(operation.work, disk.root()).empty();
        struck = disk.hits() > 0;
        SCOPED_TRACE(fmt::format("killed behind {} {} of {}, at {}", at.ops, at.skip, at.pattern, disk.lastHit()));
        disk.cutPower(FaultDisk::nothingLands);
        EXPECT_TRUE(struck || succeeded);
        check(disk.medium(), succeeded);
    }
    return static_cast<int>(at.skip);
}

} // namespace velmora::test
