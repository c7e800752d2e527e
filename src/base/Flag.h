#pragma once

#include <atomic>

namespace velmora {

// A thread-safe boolean.
class Flag {
public:
    explicit Flag(bool value = false) noexcept : value_(value) {}
    void set(bool value = true) noexcept { value_.store(value, std::memory_order_release); }
    void clear() noexcept { set(false); }
    bool isSet() const noexcept { return value_.load(std::memory_order_acquire); }

private:
    std::atomic<bool> value_;
};

// The flag by which a hardware test is told to stop.
class CancelFlag : public Flag {
public:
    using Flag::Flag;
    void cancel() noexcept { set(); }
    bool isCancelled() const noexcept { return isSet(); }
};

} // namespace velmora
