#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace velmora {

// One stream between this process and another program on this machine. One thread talks; any thread may shut it down
// meanwhile. The descriptor is closed when the object goes, and never seen by a child. Nothing raises SIGPIPE.
class LoopbackConnection {
public:
    explicit LoopbackConnection(int descriptor) noexcept : fd_(descriptor) {}
    ~LoopbackConnection();
    LoopbackConnection(const LoopbackConnection&) = delete;
    LoopbackConnection& operator=(const LoopbackConnection&) = delete;

    // For short answers without delay: no waiting for more to send, and little that waits in the kernel. A send that
    // the other side does not take for `sendTimeout` fails. Throws IOError("setsockopt", …).
    void prepare(int sendBufferBytes, std::chrono::microseconds sendTimeout);
    // Waits at most `timeout` for the first bytes. 0: the other side has closed, nothing came, or it failed.
    std::size_t receive(std::span<std::byte> to, std::chrono::microseconds timeout) noexcept;
    // True when every byte is out.
    bool sendAll(std::span<const std::byte> bytes) noexcept;
    // Both directions, at once: whoever waits in one of the above returns.
    void shutDown() noexcept;

private:
    const int fd_;
};

// Listens on 127.0.0.1, at a port that the system chooses.
class LoopbackListener {
public:
    explicit LoopbackListener(int backlog); // throws IOError("socket" or "bind", "127.0.0.1")
    ~LoopbackListener();
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    std::uint16_t port() const noexcept { return port_; }
    // Waits for the next program of this machine; any other peer is closed at once. Null: shut down, or no more can be
    // accepted.
    std::shared_ptr<LoopbackConnection> accept();
    // Ends `accept` on another thread.
    void shutDown() noexcept;

private:
    int fd_ = -1;
    std::uint16_t port_ = 0;
};

} // namespace velmora
