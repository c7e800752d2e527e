#pragma once

#include <atomic>
#include <cstdint>

namespace velmora {

// A number that one thread raises and any thread reads.
class Counter {
public:
    void add(std::int64_t n) noexcept { value_.fetch_add(n, std::memory_order_relaxed); }
    std::int64_t value() const noexcept { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::int64_t> value_{0};
};

} // namespace velmora
