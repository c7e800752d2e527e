#pragma once

#include <cstddef>
#include <future>
#include <vector>

namespace velmora {

// Runs f(0) … f(count - 1) at once, a thread each, and returns their results in that order; for work of which each disk
// has its own. Waits for all of them; then the exception of the first that threw is thrown on.
template <class F>
auto sideBySide(std::size_t count, const F& f) {
    std::vector<std::future<decltype(f(std::size_t{}))>> running;
    running.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        running.push_back(std::async(std::launch::async, [&f, i] { return f(i); }));
    for (const auto& one : running)
        one.wait();
    std::vector<decltype(f(std::size_t{}))> results;
    results.reserve(count);
    for (auto& one : running)
        results.push_back(one.get());
    return results;
}

} // namespace velmora
