#include "base/SerialQueue.h"

#include <array>
#include <future>
#include <numeric>
#include <pthread.h>

// Counts the allocations of this program, so that a test can say that a path makes none.
namespace {
std::atomic<std::int64_t> allocations{0};
}
// Not inlined, so that the compiler does not match them with its idea of the pairs.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    ++allocations;
    return std::malloc(size ? size : 1);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace velmora {
namespace {

TEST(SerialQueue, DoesTasksOfManyThreadsOneAtATimeAndInTheOrderOfEach) {
    constexpr int threads = 4, each = 2000;
    std::vector<std::pair<int, int>> done; // touched by the queue alone: TSan would tell
    {
        SerialQueue queue("test.order");
        std::vector<std::thread> senders;
        for (int t = 0; t < threads; ++t)
            senders.emplace_back([&queue, &done, t] {
                for (int i = 0; i < each; ++i)
                    queue.async([&done, t, i] { done.emplace_back(t, i); });
            });
        for (std::thread& sender : senders)
            sender.join();
    } // the destructor does what is still queued
    ASSERT_EQ(done.size(), std::size_t{threads * each});
    std::array<int, threads> next{};
    for (const auto& [t, i] : done)
        EXPECT_EQ(i, next[static_cast<std::size_t>(t)]++);
}

TEST(SerialQueue, SyncWaitsBehindWhatIsQueuedAndBringsBackResultOrException) {
    SerialQueue queue("offload.verify.pre-read");
    std::string log;
    queue.async([&log] { log += "a"; });
    EXPECT_EQ(queue.sync([&log] { return log + "b"; }), "ab");
    EXPECT_EQ(*queue.sync([] { return std::make_unique<int>(7); }), 7);
    EXPECT_THROW(queue.sync([]() -> int { throw Cancelled(); }), Cancelled);
    EXPECT_NO_THROW(queue.drain()) << "the exception of a sync belongs to its caller alone";
    std::array<char, 16> name{};
    queue.sync([&] { pthread_getname_np(pthread_self(), name.data(), name.size()); });
    EXPECT_STREQ(name.data(), "offload.verify.");
    queue.async([&queue] { queue.drain(); }); // would wait for itself for ever
    EXPECT_THROW(queue.drain(), std::logic_error);
}

TEST(SerialQueue, KeepsTheFirstExceptionForDrainAndGoesOn) {
    std::string logged;
    {
        SerialQueue queue("test.errors", [&](std::string_view line) { logged = line; });
        int after = 0;
        queue.async([] { throw IOError("write", "/x", 28); });
        queue.async([] { throw std::runtime_error("second"); });
        queue.async([&after] { after = 1; });
        EXPECT_THROW(queue.drain(), IOError);
        EXPECT_EQ(after, 1);
        EXPECT_NO_THROW(queue.drain());
        queue.async([] { throw std::runtime_error("nobody looked"); });
    }
    EXPECT_EQ(logged, "test.errors: nobody looked");
}

TEST(SerialQueue, AllocatesNothingOnceItKnowsItsDepth) {
    SerialQueue queue("test.memory");
    std::promise<void> gate;
    std::int64_t sum = 0;
    const auto burst = [&](std::int64_t n) {
        for (std::int64_t i = 0; i < n; ++i)
            queue.async([&sum, i, payload = std::array<std::int64_t, 8>{}] { sum += i + payload[0]; });
    };
    queue.async([&gate] { gate.get_future().wait(); });
    burst(500); // the ring grows behind a blocked task, and nothing gets lost
    gate.set_value();
    queue.drain();
    EXPECT_EQ(sum, 500 * 499 / 2);
    const std::int64_t before = allocations;
    for (int round = 0; round < 200; ++round)
        burst(2);
    queue.sync([] {});
    EXPECT_EQ(allocations - before, 0);
}

TEST(SerialQueue, LetsGoOfWhatATaskHoldsAsSoonAsItIsDone) {
    SerialQueue queue("test.release");
    auto held = std::make_shared<int>(1);
    queue.async([held] {});
    queue.sync([] {});
    EXPECT_EQ(held.use_count(), 1);
}

} // namespace
} // namespace velmora
