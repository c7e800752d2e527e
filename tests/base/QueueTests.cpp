#include "base/SerialQueue.h"

#include <array>
#include <future>
#include <numeric>
#include <pthread.h>

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

TEST(SerialQueue, LetsGoOfWhatATaskHoldsAsSoonAsItIsDone) {
    SerialQueue queue("test.release");
    auto held = std::make_shared<int>(1);
    queue.async([held] {});
    queue.sync([] {});
    EXPECT_EQ(held.use_count(), 1);
}

} // namespace
} // namespace velmora
